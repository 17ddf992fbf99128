// The one place that knows which file systems there are, and chooses among them.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "filesystem/file_system.h"

namespace kest {

// The mounted file system `device`: any path on it, or one of its block devices. 0; -ENODEV it is none
// of those that are known; -errno of the access to it.
int openFileSystem(const std::string &device, std::unique_ptr<FileSystem> *fs);

// The tree that the directory `path` lies in, with that directory as its root. 0; -ENOTTY it lies in
// none of the known file systems; -errno.
int openTreeAt(const std::string &path, std::unique_ptr<Tree> *tree);

// Objects for calls that name no fileset: the directory `path`, which the kernel resolves (0 or
// -errno), and the inode behind a descriptor of any kind, which stays the caller's.
int openDirectory(std::string_view path, std::unique_ptr<Directory> *dir);
std::unique_ptr<Inode> inodeBehind(int fd);

}  // namespace kest
