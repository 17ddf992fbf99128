// Finding the inodes in which a fileset and one of its snapshots differ.
#pragma once

#include "cephfs/lead_names.h"
#include "cephfs/tree_root.h"
#include "diff/change_notes.h"
#include "diff/difference_set.h"
#include "kest.h"

namespace kest {

// Walks both trees side by side, several directories at a time. 0 and the difference, or -errno. A
// directory that is in both costs two listings, one that only one tree has one. Memory: a few bytes for
// what is found and for every directory, and the listings that are compared at the moment.
// `notes` gets the changed entries of directories, `names` the leads under their names, but for
// directories that stand where the snapshot has them. `passed_over`: how many directories were not
// looked into, because the environment allows it (FSETRESTORE_RCTIME_MARGIN). `division`: how other
// processes help, or null; they look into every directory.
int compareTrees(const CephRoot &active, const CephRoot &snapshot, DifferenceSet *difference,
                 ChangeNotes *notes, LeadNames *names, uint64_t *passed_over,
                 const kest_division_t *division = nullptr);

// Compares the directories at [from, to) of the file `directories`, which compareTrees has written in
// another process, and writes what it finds to `part`. 0 or -errno.
int compareGroup(const CephRoot &active, const CephRoot &snapshot, int directories, uint64_t from,
                 uint64_t to, int part);

}  // namespace kest
