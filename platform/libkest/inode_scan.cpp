#include "libkest/inode_scan.h"

#include <linux/btrfs_tree.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "btrfs/subvolume.h"
#include "libkest/c_call.h"
#include "libkest/inode_io.h"
#include "libkest/kinship.h"
#include "libkest/xattr_blob.h"

namespace kest {

namespace {

kest_timestruc64_t toTime(const TreeTime &time) {
  return {time.sec, time.nsec};
}

// Fills scan->attr from the tree that `item` is of. 0 or -errno.
int answer(kest_iscan *scan, TreeReader &tree, uint64_t ino, const InodeItem &item) {
  std::vector<XattrItem> xattrs;
  int rc = readXattrs(tree, ino, &xattrs);
  if (rc < 0) return rc;
  fillAttributes(ino, item, xattrs, &scan->attr);
  return 0;
}

// The attributes of an inode of the difference. 0 or -errno.
int answerDifferent(kest_iscan *scan, const DiffInode &one) {
  InodeItem item;
  int rc = one.alive() ? readInode(scan->tree, one.ino, &item) : 0;
  if (rc > 0) return answer(scan, scan->tree, one.ino, item);
  if (rc == 0 && one.inSnapshot()) rc = readInode(*scan->then, one.ino, &item);
  if (rc < 0) return rc;
  rc = answer(scan, *scan->then, one.ino, item);
  scan->attr.ia_nlink = 0;
  return rc;
}

// Finds the first inode of the handle's tree in [from, to] that has a name. 1, 0 or -errno.
int nextInTree(kest_iscan *scan, uint64_t from, uint64_t to, uint64_t *ino, InodeItem *inode) {
  for (uint64_t at = std::max(from, kFirstInode); at <= std::min(to, kLastInode); ++at) {
    const TreeItem *item;
    int rc = scan->tree.at({at, 0, 0}, &item);
    if (rc <= 0) return rc;
    at = item->key.objectid;
    if (at > to) return 0;
    if (item->key.type != BTRFS_INODE_ITEM_KEY) continue;
    if (!decodeInode(*item, inode)) return -EUCLEAN;
    if (inode->nlink == 0) continue;
    *ino = at;
    return 1;
  }
  return 0;
}

int nextInode(kest_iscan *scan, uint64_t end_ino, const kest_iattr64_t **attr) {
  *attr = nullptr;
  if (scan->next_ino > end_ino) return 0;
  uint64_t ino;
  int rc;
  if (scan->difference) {
    const TreeDiff *diff;
    rc = scan->diff(&diff);
    if (rc < 0) return rc;
    const DiffInode one = diff->firstFrom(scan->next_ino);
    if (one.ino == 0 || one.ino > end_ino) return 0;
    ino = one.ino;
    rc = answerDifferent(scan, one);
  } else {
    InodeItem item;
    rc = nextInTree(scan, scan->next_ino, end_ino, &ino, &item);
    if (rc <= 0) return rc;
    rc = answer(scan, scan->tree, ino, item);
  }
  if (rc < 0) return rc;
  scan->next_ino = ino + 1;
  *attr = &scan->attr;
  return 0;
}

int statInDifference(kest_iscan *scan, uint64_t ino, uint64_t term_ino, const kest_iattr64_t **attr) {
  const TreeDiff *diff;
  int rc = scan->diff(&diff);
  if (rc < 0) return rc;
  DiffInode one = diff->firstFrom(ino);
  while (one.ino != 0 && one.ino < term_ino && !one.alive()) one = diff->firstFrom(one.ino + 1);
  if (one.ino == 0 || one.ino >= term_ino) return 0;
  rc = answerDifferent(scan, one);
  if (rc == 0) *attr = &scan->attr;
  return rc;
}

int statInTree(kest_iscan *scan, uint64_t ino, uint64_t term_ino, const kest_iattr64_t **attr) {
  if (scan->frozen < 0) {
    int rc = isReadOnly(scan->handle->root.get());
    if (rc < 0) return rc;
    scan->frozen = rc;
  }
  while (ino < term_ino) {
    InodeItem item;
    if (!scan->frozen) scan->tree.forget();
    // A tree that lives lags behind its inodes: ask the inode, and the tree only for the next number.
    if (!scan->frozen && ino + 1 == term_ino) {
      int rc = statByNumber(scan->handle, ino, &scan->attr);
      if (rc == 0) *attr = &scan->attr;
      return rc == -ENOENT ? 0 : rc;
    }
    int rc = nextInTree(scan, ino, term_ino - 1, &ino, &item);
    if (rc <= 0) return rc;
    rc = scan->frozen ? answer(scan, scan->tree, ino, item)
                      : statByNumber(scan->handle, ino, &scan->attr);
    if (rc == 0) *attr = &scan->attr;
    if (rc != -ENOENT) return rc;
    ++ino;
  }
  return 0;
}

int openScan(kest_fssnap_handle *handle, const kest_snapid_t *prev, uint64_t *max_ino,
             std::unique_ptr<kest_iscan> *opened) {
  if (handle == nullptr) return -EINVAL;
  auto scan = std::make_unique<kest_iscan>(handle);
  if (prev != nullptr) {
    scan->difference = true;
    scan->snapshot_id = *prev;
    int rc = findLine(*handle, *prev, &scan->line);
    if (rc == -EINVAL)
      setErrorText("subvolume " + std::to_string(*prev) + " is not a snapshot of " +
                   (handle->top_path.empty() ? "/" : handle->top_path));
    if (rc < 0) return rc;
    rememberSnapshot(*handle, *prev, scan->line);
    scan->then.emplace(handle->root.get(), *prev);
  }
  if (max_ino != nullptr) {
    int rc = largestInode(handle->root.get(), handle->subvol_id, max_ino);
    uint64_t other = prev != nullptr ? *prev : handle->isSnapshot() ? handle->fileset_id : 0;
    if (prev == nullptr && !handle->isSnapshot()) other = currentSnapshot(*handle);
    uint64_t theirs = 0;
    if (rc == 0 && other != 0) rc = largestInode(handle->root.get(), other, &theirs);
    if (rc < 0) return rc;
    *max_ino = std::max(*max_ino, theirs);
  }
  *opened = std::move(scan);
  return 0;
}

}  // namespace

void fillAttributes(uint64_t ino, const InodeItem &item, const std::vector<XattrItem> &xattrs,
                    kest_iattr64_t *attr) {
  std::vector<std::string> names;
  for (const XattrItem &one : xattrs) names.push_back(one.name);
  *attr = {};
  attr->ia_inode = ino;
  attr->ia_generation = item.generation;
  attr->ia_mode = item.mode;
  attr->ia_xattr = carriesBlob(item.mode, item.flags, names) ? 1 : 0;
  attr->ia_nlink = item.nlink;
  attr->ia_size = static_cast<int64_t>(item.size);
  attr->ia_uid = item.uid;
  attr->ia_gid = item.gid;
  attr->ia_rdev = packDevice(static_cast<unsigned>(item.rdev >> 20), item.rdev & 0xfffff);
  attr->ia_atime = toTime(item.atime);
  attr->ia_mtime = toTime(item.mtime);
  attr->ia_ctime = toTime(item.ctime);
  attr->ia_createtime = toTime(item.otime);
}

}  // namespace kest

using namespace kest;

int kest_iscan::diff(const TreeDiff **result) {
  if (diff_ == nullptr) {
    auto computed = std::make_unique<TreeDiff>(*handle, snapshot_id, line);
    int rc = computed->compute();
    if (rc < 0) {
      setErrorText(std::string("comparing with the snapshot failed: ") + strerror(-rc));
      return rc;
    }
    tree.forget();
    diff_ = std::move(computed);
  }
  *result = diff_.get();
  return 0;
}

extern "C" {

kest_iscan_t *kest_open_inodescan64(kest_fssnap_handle_t *handle, const kest_snapid_t *prev,
                                    uint64_t *max_ino) {
  std::unique_ptr<kest_iscan> scan;
  cCall([&] {
    setErrorText("");
    return openScan(handle, prev, max_ino, &scan);
  });
  return scan.release();
}

void kest_close_inodescan(kest_iscan_t *scan) {
  int saved = errno;
  delete scan;
  errno = saved;
}

int kest_next_inode64(kest_iscan_t *scan, uint64_t end_ino, const kest_iattr64_t **attr) {
  return cCall([&] {
    if (scan == nullptr || attr == nullptr) return -EINVAL;
    return nextInode(scan, end_ino, attr);
  });
}

int kest_idifference(kest_iscan_t *scan, uint64_t ino) {
  return cCall([&] {
    if (scan == nullptr || !scan->difference) return -EINVAL;
    const TreeDiff *diff;
    int rc = scan->diff(&diff);
    return rc < 0 ? rc : static_cast<int>(diff->find(ino).state);
  });
}

int kest_leads_to_change(kest_iscan_t *scan, uint64_t ino) {
  return cCall([&] {
    if (scan == nullptr || !scan->difference) return -EINVAL;
    const TreeDiff *diff;
    int rc = scan->diff(&diff);
    return rc < 0 ? rc : diff->find(ino).alive() || diff->leads(ino);
  });
}

int kest_stat_inode64(kest_iscan_t *scan, uint64_t ino, uint64_t term_ino,
                      const kest_iattr64_t **attr) {
  return cCall([&] {
    if (scan == nullptr || attr == nullptr) return -EINVAL;
    *attr = nullptr;
    return scan->difference ? statInDifference(scan, ino, term_ino, attr)
                            : statInTree(scan, ino, term_ino, attr);
  });
}

}  // extern "C"
