// What the walks share: questions about a directory entry, and steps that several of them take for one.
// Master only.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "kest.h"
#include "plan/lists.h"

// Type of an entry without the mark of the snapshot's side.
inline uint16_t entryType(const kest_direntx64_t &entry) {
  return entry.d_type & static_cast<uint16_t>(~KEST_DT_SNAP);
}
inline bool isDirEntry(const kest_direntx64_t &entry) {
  return entryType(entry) == 4;
}
inline bool isSnapEntry(const kest_direntx64_t &entry) {
  return entry.d_type & KEST_DT_SNAP;
}

// "." and "..".
bool isDotEntry(std::string_view name);

// True for a quota file of the file system in the fileset's root directory: never restored.
bool isQuotaFile(const std::string &directory, const char *name);

// A name of a hard-linked inode that only the snapshot has: lists the inode for its names. A clone or
// clone parent must be made as one before its names are linked: *alsoDeleted is set once for an inode
// of that kind, and the caller then also lists `path` as a deleted file. rc of a failure is -1.
Result listMissingLink(const std::string &path, uint64_t ino, bool *alsoDeleted);

// An entry that the snapshot has at `path` and whose object lives on elsewhere: records the
// destination. A non-directory of this pass that already waits in its temporary location (a dead run or
// an earlier pass put it there) also gets its changed data and its way back listed. rc of a failure is
// the one of the step.
Result fetchMovedObject(MasterLists &lists, const std::string &path, const kest_direntx64_t &entry);

// Walks a directory of both trees at `path`: how the walk over a new directory reaches the one over
// common ones.
using CommonWalker = std::function<Result(const std::string &path, uint64_t ino)>;

// The codes that the failing steps of setAsideDirectory have in the caller's lines.
struct AsideCodes {
  int move, list, walk, moveBack;
};

// A directory of the snapshot that a user renamed or moved, at `path`: moves it aside, lists it if it
// changed (`changed`), walks it at its new place, which *newPath receives, and, in pass 1, lists it for
// the final directory move. A directory that has vanished is passed over. rc of a failure is the one of
// the step.
Result setAsideDirectory(MasterLists &lists, const CommonWalker &walkCommon, const AsideCodes &codes,
                         const std::string &path, uint64_t ino, bool changed, std::string *newPath);
