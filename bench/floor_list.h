// floor_list.h: the list of the contender `floor`: all calls that make a tree equal to its snapshot,
// found beforehand and in the order in which they must be made. A private format of bench_floor: arrays
// as in memory, so that reading costs almost nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

inline constexpr uint32_t kNone = UINT32_MAX;

enum class FloorCall : uint32_t {
  kUnlink,         // dir, name
  kRename,         // dir, name to otherDir, otherName
  kMakeDir,        // dir, name; otherDir is its index in the table of directories
  kRemoveDir,      // dir, name; otherDir as above, or kNone if it is not open
  kMakeFile,       // dir, name; clone of otherDir, otherName in the snapshot unless kNone
  kMakeSymlink,    // dir, name; target is otherName
  kMakeNode,       // dir, name; device number is `number`
  kLink,           // dir, name to otherDir, otherName
  kChangeFile,     // dir, name; first cut to `number` if kCut is set; ranges from otherDir, otherName
  kDirAttributes,  // dir itself
};

// What must be set or done besides the call itself.
inline constexpr uint32_t kOwner = 1, kMode = 2, kTimes = 4, kCut = 8;

struct FloorOp {
  FloorCall call;
  uint32_t stage;  // sort key; the calls of one stage can be made in any order
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
  uint32_t name, value, length;  // kNone as value: remove it
};

// Paths below the roots. kNone: do not open. A directory that is made again is opened when it is made.
struct FloorDir {
  uint32_t activePath, snapshotPath;
};

// Names, paths and values are offsets into the text, which begins with the paths of both roots.
struct FloorList {
  std::vector<FloorOp> ops;
  std::vector<FloorRange> ranges;
  std::vector<FloorXattr> xattrs;
  std::vector<FloorDir> dirs;
  std::string text;
};

// Walks both trees and finds the calls that make `active` equal to `snapshot`. Ignores clones, flags,
// nested subvolumes and .snapshots at the top. Throws std::system_error.
FloorList planFloor(const std::string &snapshot, const std::string &active);

// Makes the calls with two threads. Ends the process when one fails.
void runFloor(const FloorList &list);

void writeFloorList(const FloorList &list, const std::string &path);
FloorList readFloorList(const std::string &path);

}  // namespace bench
