#include "detect/file_systems.h"

#include "btrfs/directory.h"
#include "btrfs/file_system.h"
#include "btrfs/inode.h"
#include "detect/ceph_plugin.h"

namespace kest {

int openFileSystem(const std::string &device, std::unique_ptr<FileSystem> *fs) {
  return isOnCephFs(device) ? openWithCephPlugin(device, fs) : openBtrfs(device, fs);
}

int openTreeAt(const std::string &path, std::unique_ptr<Tree> *tree) {
  return openBtrfsTreeAt(path, tree);
}

int openDirectory(std::string_view path, std::unique_ptr<Directory> *dir) {
  return openDirectoryAnywhere(path, dir);
}

std::unique_ptr<Inode> inodeBehind(int fd) {
  return std::make_unique<BtrfsInode>(UniqueFd(fd), BtrfsInode::Held::kBorrowed);
}

}  // namespace kest
