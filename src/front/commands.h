// The commands. Each returns the exit status and throws Trouble if it cannot do its work.
//
// front/command_line calls one of them. find_fileset, choice and when find what the user means.
// snapshot_store declares what they need from a file system; btrfs_store and ceph_store implement it.
// difference counts what a restore would change, and run_watch shows progress. Backups are in .fset at
// the top of a btrfs, which every restore leaves alone, or in the .snap of a CephFS directory. On btrfs
// undo finds them by the fileset's UUID, which a restore in place keeps.
#pragma once

#include "front/request.h"

namespace front {

int listCommand(const Request &request);
int diffCommand(const Request &request);
// For restore and undo.
int restoreCommand(const Request &request);
int progressCommand(const Request &request);
// For the shell's completion: prints the possible words of the kind in request.snapshot, "snapshots" or
// "filesets". Each line is a word, a tab, and the date of a snapshot.
int completeCommand(const Request &request);

}  // namespace front
