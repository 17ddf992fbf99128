#include "cephfs/directory.h"

#include <fcntl.h>
#include <cerrno>

#include "cephfs/inode.h"

namespace kest {

namespace {

constexpr mode_t kModeBits = 07777;

// The name without the slashes after it; *slashes says whether there were some.
std::string plainName(const std::string &name, bool *slashes) {
  const size_t end = name.find_last_not_of('/') + 1;
  *slashes = end < name.size();
  return name.substr(0, end);
}

// Checks that an entry of this name can be made or removed. 0 or -errno. ".snap" leads out of the
// active tree.
int entryName(const std::string &name, bool directory, std::string *plain) {
  bool slashes;
  *plain = plainName(name, &slashes);
  if (plain->empty()) return -ENOENT;
  if (*plain == "." || *plain == "..") return -EINVAL;
  if (*plain == kSnapFolder) return -EXDEV;
  return slashes && !directory ? -ENOTDIR : 0;
}

}  // namespace

std::string CephDirectory::pathOf(const std::string &name) const {
  bool slashes;
  const std::string plain = plainName(name, &slashes);
  if (plain == ".") return path_;
  return path_.empty() ? plain : path_ + "/" + plain;
}

int CephDirectory::lookUp(const std::string &name, InodeRef *inode, CephStat *st) const {
  bool slashes;
  const std::string plain = plainName(name, &slashes);
  if (plain == "..") return -EXDEV;
  if (plain == kSnapFolder) return -EXDEV;
  if (plain.size() > NAME_MAX) return -ENAMETOOLONG;
  if (plain == ".") {
    *inode = inode_.another();
    return *inode ? inode_.client()->readStat(inode_, st) : -ENOENT;
  }
  const int rc = inode_.client()->lookUp(inode_, plain, inode, st);
  if (rc == -ESTALE) return -ENOENT;  // the directory is gone
  if (rc < 0) return rc;
  return slashes && !S_ISDIR(st->stx_mode) ? -ENOTDIR : 0;
}

int CephDirectory::stat(const std::string &name, struct stat *st) {
  InodeRef inode;
  CephStat status;
  bool slashes;
  int rc;
  if (plainName(name, &slashes) == ".")
    rc = inode_.client()->readStat(inode_, &status);
  else
    rc = lookUp(name, &inode, &status);
  if (rc == 0) toStat(status, root_->device, st);
  return rc;
}

int CephDirectory::openObject(const std::string &name, std::unique_ptr<Inode> *object,
                              struct stat *st) {
  InodeRef inode;
  CephStat status;
  if (int rc = lookUp(name, &inode, &status); rc < 0) return rc;
  toStat(status, root_->device, st);
  const std::string path = pathOf(name);
  *object = std::make_unique<CephInode>(root_, std::move(inode), status, &path);
  return 0;
}

int CephDirectory::makeDirectory(const std::string &name, mode_t mode) {
  std::string plain;
  if (int rc = entryName(name, true, &plain); rc < 0) return rc;
  ::Inode *made = nullptr;
  CephStat st;
  const int rc =
      ceph_ll_mkdir(mount(), inode_.get(), plain.c_str(), mode & kModeBits, &made, &st, 0, 0, perms());
  if (rc == 0) ceph_ll_put(mount(), made);
  return rc;
}

int CephDirectory::makeNode(const std::string &name, mode_t mode, dev_t device) {
  std::string plain;
  if (int rc = entryName(name, false, &plain); rc < 0) return rc;
  if ((mode & S_IFMT) == 0) mode |= S_IFREG;
  ::Inode *made = nullptr;
  CephStat st;
  const int rc =
      ceph_ll_mknod(mount(), inode_.get(), plain.c_str(), mode, device, &made, &st, 0, 0, perms());
  if (rc == 0) ceph_ll_put(mount(), made);
  return rc;
}

int CephDirectory::makeSymlink(const std::string &name, const char *target) {
  std::string plain;
  if (int rc = entryName(name, false, &plain); rc < 0) return rc;
  ::Inode *made = nullptr;
  CephStat st;
  const int rc =
      ceph_ll_symlink(mount(), inode_.get(), plain.c_str(), target, &made, &st, 0, 0, perms());
  if (rc == 0) ceph_ll_put(mount(), made);
  return rc;
}

int CephDirectory::link(Inode &inode, const std::string &name) {
  std::string plain;
  if (int rc = entryName(name, false, &plain); rc < 0) return rc;
  return ceph_ll_link(mount(), static_cast<CephInode &>(inode).ref().get(), inode_.get(), plain.c_str(),
                      perms());
}

// The servers have no rename that leaves an existing target alone. An object that another process makes
// between the two calls is replaced.
int CephDirectory::rename(const std::string &name, Directory &to, const std::string &to_name) {
  std::string from, target;
  if (int rc = entryName(name, true, &from); rc < 0) return rc;
  if (int rc = entryName(to_name, true, &target); rc < 0) return rc;
  auto &other = static_cast<CephDirectory &>(to);
  InodeRef inode;
  CephStat st;
  if (int rc = lookUp(name, &inode, &st); rc < 0) return rc;
  const int found = other.lookUp(target, &inode, &st);
  if (found == 0) return -EEXIST;
  if (found != -ENOENT) return found;
  return ceph_ll_rename(mount(), inode_.get(), from.c_str(), other.inode_.get(), target.c_str(),
                        perms());
}

int CephDirectory::removeFile(const std::string &name) {
  std::string plain;
  if (int rc = entryName(name, false, &plain); rc < 0) return rc;
  return ceph_ll_unlink(mount(), inode_.get(), plain.c_str(), perms());
}

int CephDirectory::removeDirectory(const std::string &name) {
  std::string plain;
  if (int rc = entryName(name, true, &plain); rc < 0) return rc;
  return ceph_ll_rmdir(mount(), inode_.get(), plain.c_str(), perms());
}

int CephDirectory::makeClone(const std::string &, Inode &) {
  return -ENOTSUP;
}

int CephDirectory::carriesClone(const std::string &) {
  return 0;
}

int CephDirectory::readProtection(const std::string &, Protection *protection) {
  *protection = {};
  return 0;
}

int CephDirectory::holdsFileset(const std::string &) {
  return 0;
}

int openDirectoryBeneath(const std::shared_ptr<const CephRoot> &root, const CephDirectory *start,
                         std::string_view path, std::unique_ptr<Directory> *dir) {
  CephClient &client = *root->client;
  InodeRef at = (start != nullptr ? start->ref() : root->inode).another();
  if (!at) return -ENOENT;
  std::string below = start != nullptr ? start->path() : "";
  while (!path.empty()) {
    const std::string name(path.substr(0, path.find('/')));
    path.remove_prefix(std::min(path.size(), name.size() + 1));
    if (name.empty() || name == ".") continue;
    if (name == ".." || name == kSnapFolder) return -EXDEV;
    if (name.size() > NAME_MAX) return -ENAMETOOLONG;
    InodeRef next;
    CephStat st;
    const int rc = client.lookUp(at, name, &next, &st);
    if (rc == -ESTALE) return -ENOENT;
    if (rc < 0) return rc;
    if (S_ISLNK(st.stx_mode)) return -ELOOP;
    if (!S_ISDIR(st.stx_mode)) return -ENOTDIR;
    at = std::move(next);
    below += (below.empty() ? "" : "/") + name;
  }
  *dir = std::make_unique<CephDirectory>(root, std::move(at), std::move(below));
  return 0;
}

}  // namespace kest
