#include "btrfs/difference.h"

#include <algorithm>
#include <cerrno>

#include "btrfs/attributes.h"
#include "btrfs/directory_listing.h"
#include "btrfs/extent_diff.h"
#include "btrfs/inode.h"
#include "btrfs/inode_compare.h"
#include "btrfs/tree_compare.h"

namespace kest {

BtrfsDifference::BtrfsDifference(const TreeRoot &root, uint64_t snapshot_id, uint64_t line)
    : root_(root),
      snapshot_id_(snapshot_id),
      line_(line),
      active_(root.fd.get(), root.subvol_id),
      snapshot_(root.fd.get(), snapshot_id),
      walked_(root.fd.get(), root.subvol_id),
      walked_snapshot_(root.fd.get(), snapshot_id) {}

int BtrfsDifference::compute() {
  return compareTrees(root_, snapshot_id_, line_, &set_, &changes_);
}

int BtrfsDifference::readAttributes(const DiffInode &inode, kest_iattr64_t *attr) {
  InodeItem item;
  int rc = inode.alive() ? readInode(active_, inode.ino, &item) : 0;
  if (rc < 0) return rc;
  if (rc > 0) return readTreeAttributes(active_, inode.ino, item, attr);
  if (inode.inSnapshot()) rc = readInode(snapshot_, inode.ino, &item);
  if (rc >= 0) rc = readTreeAttributes(snapshot_, inode.ino, item, attr);
  if (rc == 0) attr->ia_nlink = 0;
  return rc;
}

int BtrfsDifference::listChanged(Inode &dir, EntryList *entries) {
  return listChangedEntries(root_, asBtrfs(dir), set_, changes_, snapshot_id_, line_, entries);
}

std::unique_ptr<EntryStream> BtrfsDifference::leadingEntries(Inode &dir) {
  return std::make_unique<LeadListing>(root_, asBtrfs(dir), set_, walked_);
}

int BtrfsDifference::readChange(uint64_t ino, kest_change_t *change) {
  if (changes_.find(ino, change)) return 0;
  InodeItem now, then;
  int rc = readInode(walked_, ino, &now);
  if (rc > 0) rc = readInode(walked_snapshot_, ino, &then);
  if (rc < 0) return rc;
  if (rc == 0 || now.nlink == 0 || !sameIdentity(now, then)) return -ENOENT;
  return describeChange(walked_, walked_snapshot_, ino, now, then, change);
}

int BtrfsDifference::readLost(uint64_t ino, kest_lost_t *lost) {
  return changes_.findLost(ino, lost);
}

int BtrfsDifference::listChangedRanges(Inode &file, uint64_t from, uint64_t to,
                                       std::vector<FileRange> *ranges) {
  const InodeFacts &facts = file.facts();
  InodeItem now, then;
  now.generation = facts.generation;
  now.otime = {facts.created.tv_sec, facts.created.tv_nsec};
  now.mode = facts.mode;
  int rc = readInode(walked_snapshot_, facts.ino, &then);
  if (rc < 0) return rc;
  if (rc == 0 || !sameIdentity(now, then)) return -ENOENT;
  struct stat st;
  if (rc = file.stat(&st); rc < 0) return rc;
  const uint64_t end = std::min<uint64_t>({static_cast<uint64_t>(st.st_size), then.size, to});
  return diffExtents(walked_, walked_snapshot_, facts.ino, from, end, SIZE_MAX, ranges);
}

}  // namespace kest
