#include "btrfs/inode_names.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>
#include <climits>
#include <string_view>

#include "base/unique_fd.h"
#include "btrfs/subvolume.h"
#include "btrfs/tree_items.h"

namespace kest {
namespace {

// One directory with names of the inode: its path and, if names are checked, its descriptor.
struct Folder {
  uint64_t ino = 0;  // 0: none entered yet
  bool below = false;
  std::string path;  // path from the start directory, ending with a slash; "" for the start directory
  UniqueFd fd;
};

class NameFinder {
 public:
  NameFinder(int start_fd, uint64_t subvol_id, bool checked)
      : start_fd_(start_fd), subvol_id_(subvol_id), checked_(checked) {}

  int find(uint64_t ino, InodeNames *found);

 private:
  int begin();
  int enter(uint64_t dir);
  int openFolder();
  int leadsTo(const std::string &name, uint64_t ino) const;

  int start_fd_;
  uint64_t subvol_id_;
  bool checked_;
  struct stat start_ {};
  std::string start_path_;  // path in the subvolume, ending with a slash; "" for the root
  Folder folder_;
};

int NameFinder::begin() {
  if (fstat(start_fd_, &start_) < 0) return -errno;
  return directoryPath(start_fd_, subvol_id_, start_.st_ino, &start_path_);
}

// Opens the folder by its path, in pieces that the kernel accepts. 0 or -errno.
int NameFinder::openFolder() {
  constexpr size_t kPiece = PATH_MAX - 1;
  std::string_view rest = folder_.path;
  folder_.fd.reset(openat(start_fd_, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  while (folder_.fd && !rest.empty()) {
    size_t length = rest.size() <= kPiece ? rest.size() : rest.rfind('/', kPiece - 1) + 1;
    folder_.fd.reset(openat(folder_.fd.get(), std::string(rest.substr(0, length)).c_str(),
                            O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    rest.remove_prefix(length);
  }
  return folder_.fd ? 0 : -errno;
}

// Makes `dir` the folder of the next names. 0 or -errno.
int NameFinder::enter(uint64_t dir) {
  folder_.ino = dir;
  folder_.below = false;
  int rc = directoryPath(start_fd_, subvol_id_, dir, &folder_.path);
  if (rc == -ENOENT) return 0;
  if (rc < 0) return rc;
  if (!folder_.path.starts_with(start_path_)) return 0;
  folder_.path.erase(0, start_path_.size());
  if (checked_) {
    rc = openFolder();
    if (rc == -ENOENT || rc == -ENOTDIR || rc == -ELOOP) return 0;
    if (rc < 0) return rc;
  }
  folder_.below = true;
  return 0;
}

// Whether the name leads to the inode: 1, 0 or -errno.
int NameFinder::leadsTo(const std::string &name, uint64_t ino) const {
  if (!checked_) return 1;
  struct stat st;
  if (fstatat(folder_.fd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) < 0)
    return errno == ENOENT || errno == ENOTDIR ? 0 : -errno;
  return st.st_ino == ino && st.st_dev == start_.st_dev;
}

int NameFinder::find(uint64_t ino, InodeNames *found) {
  *found = {};
  if (int rc = begin(); rc < 0) return rc;
  TreeReader tree(start_fd_, subvol_id_);
  InodeItem inode;
  int rc = readInode(tree, ino, &inode);
  if (rc <= 0) return rc;
  found->generation = inode.generation;
  if (ino == start_.st_ino) {
    found->paths.emplace_back();
    return 1;
  }
  std::vector<NameRef> names;  // sorted, so names in one directory are adjacent
  rc = readNames(tree, ino, &names);
  if (rc < 0) return rc;
  for (const NameRef &name : names) {
    if (name.parent != folder_.ino && (rc = enter(name.parent)) < 0) return rc;
    if (!folder_.below) continue;
    rc = leadsTo(name.name, ino);
    if (rc < 0) return rc;
    if (rc > 0) found->paths.push_back(folder_.path + name.name);
  }
  return 1;
}

}  // namespace

int findInodeNames(int dir_fd, uint64_t subvol_id, uint64_t ino, bool checked, InodeNames *found) {
  return NameFinder(dir_fd, subvol_id, checked).find(ino, found);
}

}  // namespace kest
