// floor_list.h: the list that the contender `floor` works from: every call that makes a tree equal to
// its snapshot, found beforehand, in the order in which it is to be made. A private format of
// bench_floor: arrays as they lie in memory, so that reading the list costs next to nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

inline constexpr uint32_t kNone = UINT32_MAX;

enum class FloorCall : uint32_t {
  kUnlink,     // dir, name
  kRename,     // dir, name to otherDir, otherName
  kMakeDir,    // dir, name; its own place in the table of directories is otherDir
  kRemoveDir,  // dir, name; otherDir as above, or kNone where nobody opened it
  kMakeFile,   // dir, name; cloned whole from otherDir, otherName of the snapshot, unless that is kNone
  kMakeSymlink,  // dir, name; target is otherName
  kMakeNode,     // dir, name; device number is `number`
  kLink,         // dir, name to otherDir, otherName
  kChangeFile,   // dir, name; cut to `number` first where kCut says so; ranges from otherDir, otherName
  kDirAttributes,  // dir itself
};

// What is to be set, or done, beside the call itself.
inline constexpr uint32_t kOwner = 1, kMode = 2, kTimes = 4, kCut = 8;

struct FloorOp {
  FloorCall call;
  uint32_t stage;  // the list is sorted by it; the calls of one stage can be made in any order
  uint32_t dir = kNone, name = kNone, otherDir = kNone, otherName = kNone;
  uint32_t what = 0, mode = 0, uid = 0, gid = 0;
  uint32_t firstRange = 0, ranges = 0;
  uint32_t firstXattr = 0, xattrs = 0;
  uint64_t number = 0;
  int64_t seconds = 0, nanoseconds = 0;
};

struct FloorRange {
  uint64_t offset, length;
};

struct FloorXattr {
  uint32_t name, value, length;  // kNone for value: to be removed
};

// Paths below the roots. kNone: not opened; a directory that is made again is opened where it is made.
struct FloorDir {
  uint32_t activePath, snapshotPath;
};

// Names, paths and values are offsets in text, which begins with the paths of the two roots.
struct FloorList {
  std::vector<FloorOp> ops;
  std::vector<FloorRange> ranges;
  std::vector<FloorXattr> xattrs;
  std::vector<FloorDir> dirs;
  std::string text;
};

// Compares the trees by a walk of both and tells what makes `active` equal to `snapshot`. Clones, flags
// and nested subvolumes are left alone, as is .snapshots at the top. Throws std::system_error.
FloorList planFloor(const std::string &snapshot, const std::string &active);

// Makes the calls, by two threads. Ends the process where one fails.
void runFloor(const FloorList &list);

void writeFloorList(const FloorList &list, const std::string &path);
FloorList readFloorList(const std::string &path);

}  // namespace bench
