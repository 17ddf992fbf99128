#include "support/clone_print.h"

#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "support/descriptor.h"
#include "support/tree_fingerprint.h"

namespace testsupport {
namespace {

constexpr uint64_t kBlock = 4096;

uint64_t bigEndian(const std::string &bytes, size_t at, size_t count) {
  uint64_t value = 0;
  for (size_t i = 0; i < count; ++i) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

std::string text(const std::optional<ClonePrint> &clone) {
  if (!clone) return "none";
  std::string line = clone->parent ? "parent" : "clone";
  line += ", depth " + std::to_string(clone->depth);
  if (clone->depth)
    line += ", of " + (clone->parentPath.empty() ? "nothing" : shown(clone->parentPath));
  return line;
}

const ClonePrint *parentIn(const TreePrint &tree, const ClonePrint &clone) {
  auto found = tree.objects.find(clone.parentPath);
  const bool is = !clone.parentPath.empty() && found != tree.objects.end() && found->second.clone;
  return is ? &*found->second.clone : nullptr;
}

// Returns true if every ancestor up to a parent of depth 0, or one in a snapshot, exists.
bool unbroken(const TreePrint &tree, const ClonePrint &clone) {
  if (clone.depth == 0) return true;
  if (!clone.parentFits) return false;
  const ClonePrint *parent = parentIn(tree, clone);
  return parent ? unbroken(tree, *parent) : !tree.objects.count(clone.parentPath);
}

// Returns true if the file is what a restore makes of the wanted clone.
bool isRight(const TreePrint &wantTree, const TreePrint &haveTree, const ObjectPrint &wanted,
             const ObjectPrint &had) {
  const std::optional<ClonePrint> &want = wanted.clone, &have = had.clone;
  const bool survived = wanted.inode == had.inode && wanted.birth.tv_sec == had.birth.tv_sec &&
                        wanted.birth.tv_nsec == had.birth.tv_nsec;
  if (want && want->depth && !want->parentFits && !survived)
    return want->parent ? have && have->parent && have->depth == 0 : !have;
  if (!want || !have) return want.has_value() == have.has_value();
  unsigned depth = want->depth;
  if (!survived && !unbroken(wantTree, *want)) {
    const ClonePrint *parent = parentIn(haveTree, *have);
    depth = parent ? parent->depth + 1 : 0;
  }
  return want->parent == have->parent && have->depth == depth && want->parentPath == have->parentPath;
}

std::vector<fiemap_extent> extentsOf(int fd, uint32_t flags, const std::string &path) {
  constexpr unsigned kExtents = 64;
  std::vector<fiemap_extent> extents;
  std::vector<uint64_t> room((sizeof(fiemap) + kExtents * sizeof(fiemap_extent)) / sizeof(uint64_t) +
                             1);
  auto *map = reinterpret_cast<fiemap *>(room.data());
  for (uint64_t at = 0;;) {
    std::fill(room.begin(), room.end(), 0);
    map->fm_start = at;
    map->fm_length = ~at;
    map->fm_flags = flags;
    map->fm_extent_count = kExtents;
    if (ioctl(fd, FS_IOC_FIEMAP, map) != 0) {
      if (errno == EOPNOTSUPP) return {};  // the file system does not show extents
      failWithErrno("map " + path);
    }
    if (map->fm_mapped_extents == 0) return extents;
    extents.insert(extents.end(), map->fm_extents, map->fm_extents + map->fm_mapped_extents);
    if (extents.back().fe_flags & FIEMAP_EXTENT_LAST) return extents;
    at = extents.back().fe_logical + extents.back().fe_length;
  }
}

}  // namespace

std::optional<ClonePrint> readClone(const std::string &clone, const std::string &cloneSnap) {
  if (clone.size() < 16) return std::nullopt;
  ClonePrint print;
  const auto flags = static_cast<unsigned char>(clone[12]);
  print.parent = flags & 0x80;
  print.parentInode = bigEndian(clone, 0, 8);
  print.depth = static_cast<unsigned>(bigEndian(clone, 14, 2));
  if (flags & 0x40) {
    print.parentFits = true;
    print.parentPath = "snapshot " +
                       (cloneSnap.size() < 8 ? "?" : std::to_string(bigEndian(cloneSnap, 4, 4))) +
                       " inode " + std::to_string(print.parentInode);
  }
  return print;
}

BlockRanges missingIn(const BlockRanges &from, const BlockRanges &less) {
  BlockRanges missing;
  for (auto [start, end] : from) {
    for (const auto &[a, b] : less) {
      if (b <= start || a >= end) continue;
      if (a > start) missing.emplace_back(start, a);
      start = std::max(start, b);
    }
    if (start < end) missing.emplace_back(start, end);
  }
  return missing;
}

PlacedBlocks physicalBlocks(int fd, const std::string &path, bool written_out) {
  PlacedBlocks blocks;
  for (const fiemap_extent &extent : extentsOf(fd, written_out ? FIEMAP_FLAG_SYNC : 0, path)) {
    if (extent.fe_flags & (FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_UNWRITTEN)) continue;
    for (uint64_t offset = 0; offset < extent.fe_length; offset += kBlock) {
      // Parts of a compressed extent have no place of their own.
      const uint64_t inside = extent.fe_flags & FIEMAP_EXTENT_ENCODED ? 0 : offset;
      blocks[extent.fe_logical + offset] = extent.fe_physical + inside;
    }
  }
  return blocks;
}

BlockRanges preallocated(int fd, uint64_t size, const std::string &path) {
  BlockRanges ranges;
  for (const fiemap_extent &extent : extentsOf(fd, 0, path))
    if (extent.fe_flags & FIEMAP_EXTENT_UNWRITTEN && extent.fe_logical < size)
      ranges.emplace_back(extent.fe_logical, extent.fe_logical + extent.fe_length);
  return ranges;
}

void connectClones(TreePrint *tree) {
  std::map<uint64_t, const std::string *> parents;
  for (const auto &[path, object] : tree->objects)
    if (object.clone && object.clone->parent) parents.emplace(object.inode, &path);
  for (auto &[path, object] : tree->objects) {
    if (!object.clone || object.clone->depth == 0 || !object.clone->parentPath.empty()) continue;
    auto found = parents.find(object.clone->parentInode);
    if (found == parents.end()) continue;
    const ClonePrint &parent = *tree->objects.at(*found->second).clone;
    object.clone->parentFits = parent.depth + 1 == object.clone->depth;
    object.clone->parentPath = *found->second;
    BlockRanges &shared = object.clone->shared;
    for (const auto &[offset, place] : object.clone->blocks) {
      auto same = parent.blocks.find(offset);
      if (same == parent.blocks.end() || same->second != place) continue;
      if (!shared.empty() && shared.back().second == offset)
        shared.back().second += kBlock;
      else
        shared.emplace_back(offset, offset + kBlock);
    }
  }
}

void compareClones(const TreePrint &want, const TreePrint &have, std::vector<std::string> *lines) {
  for (const auto &[path, object] : want.objects) {
    auto other = have.objects.find(path);
    if (other == have.objects.end() || !S_ISREG(object.mode) || !S_ISREG(other->second.mode)) continue;
    const std::optional<ClonePrint> &wanted = object.clone, &had = other->second.clone;
    if (!isRight(want, have, object, other->second))
      lines->push_back("clone state of " + shown(path) + ": want " + text(wanted) + ", have " +
                       text(had));
    else if (wanted && had)
      for (auto [start, end] : missingIn(wanted->shared, had->shared))
        lines->push_back("unshared: " + shown(path) + " from " + shown(wanted->parentPath) + " in [" +
                         std::to_string(start) + "," + std::to_string(end) + ")");
  }
}

}  // namespace testsupport
