// A directory of a CephFS, held open for calls by name.
#pragma once

#include <cerrno>
#include <memory>
#include <string>
#include <string_view>

#include "cephfs/tree_root.h"
#include "filesystem/file_system.h"

namespace kest {

class CephDirectory : public Directory {
 public:
  // `path`: below the root of the tree.
  CephDirectory(std::shared_ptr<const CephRoot> root, InodeRef inode, std::string path)
      : root_(std::move(root)), inode_(std::move(inode)), path_(std::move(path)) {}

  const InodeRef &ref() const { return inode_; }
  const std::string &path() const { return path_; }
  // The object `name`, which may be followed by slashes if it is a directory, or "." itself.
  int lookUp(const std::string &name, InodeRef *inode, CephStat *st) const;
  std::string pathOf(const std::string &name) const;

  int stat(const std::string &name, struct stat *st) override;
  int openObject(const std::string &name, std::unique_ptr<Inode> *object, struct stat *st) override;
  int makeDirectory(const std::string &name, mode_t mode) override;
  int makeNode(const std::string &name, mode_t mode, dev_t device) override;
  int makeSymlink(const std::string &name, const char *target) override;
  int link(Inode &inode, const std::string &name) override;
  int rename(const std::string &name, Directory &to, const std::string &to_name) override;
  int renameFileset(const std::string &, uint64_t, Directory &, const std::string &) override {
    return -ENOTSUP;
  }
  int removeFile(const std::string &name) override;
  int removeDirectory(const std::string &name) override;
  int makeClone(const std::string &name, Inode &parent) override;
  int carriesClone(const std::string &name) override;
  int readProtection(const std::string &name, Protection *protection) override;
  int holdsFileset(const std::string &name) override;

 private:
  ceph_mount_info *mount() const { return inode_.client()->mount(); }
  const UserPerm *perms() const { return inode_.client()->perms(); }

  std::shared_ptr<const CephRoot> root_;
  InodeRef inode_;
  std::string path_;
};

// The directory `path` beneath `start`; see Tree::openDirectory.
int openDirectoryBeneath(const std::shared_ptr<const CephRoot> &root, const CephDirectory *start,
                         std::string_view path, std::unique_ptr<Directory> *dir);

}  // namespace kest
