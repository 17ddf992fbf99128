#include "btrfs/attributes.h"

#include <algorithm>

#include "btrfs/inode_flags.h"
#include "filesystem/blob_format.h"
#include "filesystem/clone_attribute.h"

namespace kest {

namespace {

kest_timestruc64_t toTime(const TreeTime &time) {
  return {time.sec, time.nsec};
}

// The value of ia_xattr: whether the attribute blob of the inode would hold anything.
bool carriesBlob(const InodeItem &item, const std::vector<XattrItem> &xattrs) {
  return storageFlagsOfItem(item.mode, item.flags) != 0 ||
         std::any_of(xattrs.begin(), xattrs.end(),
                     [](const XattrItem &one) { return travelsInBlob(one.name); });
}

}  // namespace

uint32_t packDevice(unsigned major_no, unsigned minor_no) {
  unsigned above = (major_no & 0xfff) | ((minor_no >> 8) & 0xf) << 12;
  return above << 16 | (minor_no & 0xff);
}

uint32_t factOfXattr(std::string_view name) {
  if (name == "system.posix_acl_access" || name == "system.posix_acl_default") return KEST_HAS_ACL;
  if (name == "security.capability") return KEST_HAS_CAPABILITY;
  return name == kCloneAttribute ? KEST_HAS_CLONE : 0;
}

void fillAttributes(uint64_t ino, const InodeItem &item, const std::vector<XattrItem> &xattrs,
                    kest_iattr64_t *attr) {
  *attr = {};
  attr->ia_inode = ino;
  attr->ia_generation = item.generation;
  attr->ia_mode = item.mode;
  attr->ia_xattr = carriesBlob(item, xattrs) ? 1 : 0;
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

int readTreeAttributes(TreeReader &tree, uint64_t ino, const InodeItem &item, kest_iattr64_t *attr) {
  std::vector<XattrItem> xattrs;
  if (int rc = readXattrs(tree, ino, &xattrs); rc < 0) return rc;
  fillAttributes(ino, item, xattrs, attr);
  return 0;
}

}  // namespace kest
