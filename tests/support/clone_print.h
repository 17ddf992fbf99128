// clone_print.h: reads the clones of a tree: parent flags, depths, parents by path, and shared blocks.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

struct TreePrint;

// [start, end) in bytes, merged and sorted.
using BlockRanges = std::vector<std::pair<uint64_t, uint64_t>>;
// Offset of each 4 KiB block -> its physical place.
using PlacedBlocks = std::map<uint64_t, uint64_t>;

// Describes a file that is a clone, a clone parent, or both.
struct ClonePrint {
  bool parent = false;
  unsigned depth = 0;        // 0: not a clone itself
  uint64_t parentInode = 0;  // from the attribute; not compared
  // A name of the clone parent that the number leads to in this tree; "snapshot <id> inode <n>"; "" if
  // there is none.
  std::string parentPath;
  bool parentFits = false;  // its depth is one less, or it is in a snapshot
  BlockRanges shared;       // blocks shared with the parent at the same offsets
  PlacedBlocks blocks;      // not compared
};

// Decodes trusted.kest.CLONE and trusted.kest.CLONESNAP; returns nothing if the file has none.
std::optional<ClonePrint> readClone(const std::string &clone, const std::string &cloneSnap);
// Finds the place of each block of the file of the descriptor, without preallocation. Writes the file
// out first, because blocks that are not written yet have no place.
PlacedBlocks physicalBlocks(int fd, const std::string &path, bool written_out = true);
// Returns the preallocated parts of [0, size). After a reflink, the kernel's search for holes does not
// report these.
BlockRanges preallocated(int fd, uint64_t size, const std::string &path);
// Returns the parts of `from` that are not in `less`.
BlockRanges missingIn(const BlockRanges &from, const BlockRanges &less);

// Fills parentPath and shared for every clone of the tree.
void connectClones(TreePrint *tree);

// Appends the differences between the clones of two trees. If the wanted tree does not have the parent
// of a clone, the clone may be a parent of depth 0 or an ordinary file, or an unchanged survivor;
// depths of its descendants are counted from it.
void compareClones(const TreePrint &want, const TreePrint &have, std::vector<std::string> *lines);

}  // namespace testsupport
