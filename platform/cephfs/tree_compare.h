// Finding the inodes in which a fileset and one of its snapshots differ.
#pragma once

#include "cephfs/lead_names.h"
#include "cephfs/tree_root.h"
#include "diff/change_notes.h"
#include "diff/difference_set.h"
#include "kest.h"

namespace kest {

// Walks both trees side by side, several directories at a time. 0 and the difference, or -errno. A
// directory of both trees costs two listings, any other one. Takes a few bytes of memory for everything
// that it finds and for every directory, besides the listings that are being compared.
// `notes` receives the changed entries of directories. `names` receives the names of the leads, except
// for directories that are where the snapshot has them. `passed_over` receives the number of
// directories that were not entered because the environment allows it (FSETRESTORE_RCTIME_MARGIN).
// `division` says how other processes help, or is null; those processes enter every directory.
int compareTrees(const CephRoot &active, const CephRoot &snapshot, DifferenceSet *difference,
                 ChangeNotes *notes, LeadNames *names, uint64_t *passed_over,
                 const kest_division_t *division = nullptr);

// Compares the directories at [from, to) of the file `directories`, which compareTrees has written in
// another process, and writes what it finds to `part`. 0 or -errno.
int compareGroup(const CephRoot &active, const CephRoot &snapshot, int directories, uint64_t from,
                 uint64_t to, int part);

}  // namespace kest
