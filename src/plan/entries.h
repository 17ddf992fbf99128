// Shared by the walks: properties of a directory entry, and steps that several walks take for one.
// Master only.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "kest.h"
#include "plan/lists.h"

// Returns the type of an entry without the bit that marks entries of the snapshot.
inline uint16_t entryType(const kest_direntx64_t &entry) {
  return entry.d_type & static_cast<uint16_t>(~KEST_DT_SNAP);
}
inline bool isDirEntry(const kest_direntx64_t &entry) {
  return entryType(entry) == 4;
}
inline bool isSnapEntry(const kest_direntx64_t &entry) {
  return entry.d_type & KEST_DT_SNAP;
}

// Returns true for "." and "..".
bool isDotEntry(std::string_view name);

// Returns true for a quota file of the file system in the fileset's root directory. Those are never
// restored.
bool isQuotaFile(const std::string &directory, const char *name);

// Handles a name of a hard-linked inode that only the snapshot has: lists the inode for phase 8. A
// clone or clone parent must be made as such before its names are linked, so *alsoDeleted is set once
// for such an inode; the caller then also lists `path` as a deleted file. rc of a failure is -1.
Result listMissingLink(const std::string &path, uint64_t ino, bool *alsoDeleted);

// Handles an entry that the snapshot has at `path` and whose object still exists elsewhere: records
// `path` as its destination. If a non-directory of this pass already waits in its temporary location,
// because an earlier pass or a run that died moved it there, also lists its changed data and its move
// home. rc of a failure is that of the step.
Result fetchMovedObject(MasterLists &lists, const std::string &path, const kest_direntx64_t &entry);

// Walks a directory of both trees at `path`. Through this, the walk over a new directory calls the walk
// over common directories.
using CommonWalker = std::function<Result(const std::string &path, uint64_t ino)>;

// The caller's codes for the failing steps of setAsideDirectory.
struct AsideCodes {
  int settle, move, list, walk, moveBack;
};

// Handles a directory of the snapshot that a user has renamed or moved and that is at `path` now:
// performs the truncations that wait, because paths change now, moves it aside, lists it if `changed`,
// walks it at its new place, which *newPath receives, and in pass 1 lists it for the final directory
// move. Skips a directory that has disappeared. rc of a failure is that of the step.
Result setAsideDirectory(MasterLists &lists, const CommonWalker &walkCommon, const AsideCodes &codes,
                         const std::string &path, uint64_t ino, bool changed, std::string *newPath);
