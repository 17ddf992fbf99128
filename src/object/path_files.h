// The per-inode files in the MOVE_ buckets.
#pragma once

#include <cstdint>
#include <string>

// Records `path` as the place where inode `ino` must end up (its path in the snapshot, as a path of the
// active fileset). 0 or an errno.
int fetchFile(const std::string &path, uint64_t ino);

// The recorded place, whole (a name may hold a newline). 0, or -1 after trace lines; `path` is used in
// traces only.
int getOrigPathBeforeRename(const std::string &path, std::string *result, uint64_t ino);

// The contents of the destination file of `ino`: false and errno when there is none or it is empty.
bool readDestination(uint64_t ino, std::string *destination);

// Appends the inode number of the clone parent at `path` to the new-parent file of `ino`, its number in
// the snapshot. 0, or -1 or an errno after a trace line; -1 where the file is no clone parent.
int recordCloneParentIno(const std::string &path, uint64_t ino);

// The number that the clone parent `ino` of the snapshot has now: the last recorded one that is a
// living clone parent. 1; 0 when there is none; -1 and errno when that cannot be told.
int readNewParent(uint64_t ino, uint64_t *now);
