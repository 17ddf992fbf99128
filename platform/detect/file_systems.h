// The only module of the library that knows which file systems exist, and chooses among them. Above the
// library only the stores of the command for people (src/front) know them. The engine is not linked
// with the library and finds in the mount table whether nodes can share a file system
// (engine/node_list).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "filesystem/file_system.h"

namespace kest {

// Opens the mounted file system `device`: any path on it, or one of its block devices. 0; -ENODEV: it
// is none of the known ones; or the -errno of the access to it.
int openFileSystem(const std::string &device, std::unique_ptr<FileSystem> *fs);

// Opens the btrfs subvolume in which the directory `path` lies, with that directory as root. 0;
// -ENOTTY: it lies in another file system; or -errno.
int openTreeAt(const std::string &path, std::unique_ptr<Tree> *tree);

// For calls without a fileset: openDirectory opens the directory `path`, which the kernel resolves (0
// or -errno), and inodeBehind wraps a descriptor of any kind, which the caller still owns. Both return
// the classes of btrfs, whatever file system it is: for these calls they only make system calls on a
// descriptor, which fail where the file system lacks what is asked for.
int openDirectory(std::string_view path, std::unique_ptr<Directory> *dir);
std::unique_ptr<Inode> inodeBehind(int fd);

}  // namespace kest
