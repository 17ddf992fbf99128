// A directory of a btrfs, held open for calls by name.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "btrfs/tree_root.h"
#include "btrfs/tree_search.h"
#include "filesystem/file_system.h"

namespace kest {

class BtrfsDirectory : public Directory {
 public:
  explicit BtrfsDirectory(UniqueFd fd) : fd_(std::move(fd)) {}
  int fd() const { return fd_.get(); }

  int stat(const std::string &name, struct stat *st) override;
  int openObject(const std::string &name, std::unique_ptr<Inode> *object, struct stat *st) override;
  int makeDirectory(const std::string &name, mode_t mode) override;
  int makeNode(const std::string &name, mode_t mode, dev_t device) override;
  int makeSymlink(const std::string &name, const char *target) override;
  int link(Inode &inode, const std::string &name) override;
  int rename(const std::string &name, Directory &to, const std::string &to_name) override;
  int renameFileset(const std::string &name, uint64_t id, Directory &to,
                    const std::string &to_name) override;
  int removeFile(const std::string &name) override;
  int removeDirectory(const std::string &name) override;
  int makeClone(const std::string &name, Inode &parent) override;
  int carriesClone(const std::string &name) override;
  int readProtection(const std::string &name, Protection *protection) override;
  int holdsFileset(const std::string &name) override;

 private:
  UniqueFd fd_;  // O_PATH suffices
};

// `frozen` below is a reader of the tree if that is read-only, else NULL. The directory uses it as long
// as it exists.

// Opens the directory `path` beneath the directory `start_fd` of the tree; see Tree::openDirectory.
int openDirectoryBeneath(const TreeRoot &root, TreeReader *frozen, int start_fd, std::string_view path,
                         std::unique_ptr<Directory> *dir);
// See Tree::openNamed and Tree::createFile.
int openNamed(const TreeRoot &root, TreeReader *frozen, const Directory &dir, const std::string &name,
              std::unique_ptr<Inode> *inode);
int createFile(const TreeRoot &root, const Directory &dir, const std::string &name, mode_t mode,
               std::unique_ptr<Inode> *inode);
// See Tree::duplicateDirectory.
int duplicateDirectory(const TreeRoot &root, int fd, std::unique_ptr<Directory> *dir);
// Opens the directory `path`, resolved by the kernel as usual. 0 or -errno.
int openDirectoryAnywhere(std::string_view path, std::unique_ptr<Directory> *dir);

}  // namespace kest
