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
