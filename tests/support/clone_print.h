// clone_print.h: what a tree's clones are: parent flags, depths, parents by path, and what is shared.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

struct TreePrint;

// [start, end) in bytes, merged, sorted.
using BlockRanges = std::vector<std::pair<uint64_t, uint64_t>>;
// Offset of each 4 KiB block, and its physical place.
using PlacedBlocks = std::map<uint64_t, uint64_t>;

// Of a file that is a clone, a clone parent, or both.
struct ClonePrint {
  bool parent = false;
  unsigned depth = 0;        // 0: no clone itself
  uint64_t parentInode = 0;  // as the attribute has it, recorded only
  // A name in this tree of the clone parent that the number leads to; "snapshot <id> inode <n>"; empty
  // where there is none.
  std::string parentPath;
  bool parentFits = false;  // its depth is one less, or it lives in a snapshot
  BlockRanges shared;       // with the parent at parentPath, in the same places
  PlacedBlocks blocks;      // recorded only
};

// Decodes trusted.kest.CLONE and trusted.kest.CLONESNAP; nothing where the file carries none.
std::optional<ClonePrint> readClone(const std::string &clone, const std::string &cloneSnap);
// Where each block of the file behind the descriptor lies, preallocation left out. It is written out
// before; else blocks that were not written yet lie nowhere.
PlacedBlocks physicalBlocks(int fd, const std::string &path, bool written_out = true);
// What of [0, size) is preallocated: for a file that came by it through a reflink the kernel answers a
// search for the next hole as if there were none.
BlockRanges preallocated(int fd, uint64_t size, const std::string &path);
// The parts of `from` that are not in `less`.
BlockRanges missingIn(const BlockRanges &from, const BlockRanges &less);

// Fills parentPath and shared of every clone of the tree.
void connectClones(TreePrint *tree);

// Adds the differences between the clones of two trees. A clone whose parent the wanted tree does not
// have is restored as a parent of depth 0 or an ordinary file, or has survived as it was; depths below
// it count from there.
void compareClones(const TreePrint &want, const TreePrint &have, std::vector<std::string> *lines);

}  // namespace testsupport
