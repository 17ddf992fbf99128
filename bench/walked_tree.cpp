#include "walked_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "floor_list.h"
#include "tree_files.h"

namespace bench {
namespace {

// Inode numbers of a subvolume's root, and of the stub of a nested one in a snapshot.
constexpr uint64_t kSubvolumeRoot = 256, kSubvolumeStub = 2;

using Directory = std::unique_ptr<DIR, decltype([](DIR *dir) { closedir(dir); })>;

class Walk {
 public:
  explicit Walk(const std::string &root) { tree_.root = root; }

  WalkedTree take() {
    add(AT_FDCWD, tree_.root.c_str(), "", 0);
    readDirectory(open(tree_.root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), 0);
    return std::move(tree_);
  }

 private:
  // Adds the name, and the object if it is new. Returns a directory to enter, or kNone.
  uint32_t add(int dirFd, const char *path, const char *name, uint32_t parent) {
    struct statx sx;
    if (statx(dirFd, path, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
      fail(std::string("stat ") + path);
    const bool isDir = S_ISDIR(sx.stx_mode);
    const bool isRoot = tree_.objects.empty();
    if (isDir && !isRoot && (sx.stx_ino == kSubvolumeRoot || sx.stx_ino == kSubvolumeStub))
      return kNone;
    auto [place, isNew] = tree_.byInode.try_emplace(sx.stx_ino, tree_.objects.size());
    if (isNew)
      tree_.objects.push_back({sx.stx_ino, sx.stx_size, makedev(sx.stx_rdev_major, sx.stx_rdev_minor),
                               sx.stx_mode, sx.stx_uid, sx.stx_gid, sx.stx_mtime, sx.stx_ctime,
                               sx.stx_btime, kNone});
    WalkedObject &object = tree_.objects[place->second];
    tree_.names.push_back({name, parent, place->second, object.firstName});
    object.firstName = static_cast<uint32_t>(tree_.names.size() - 1);
    return isDir ? place->second : kNone;
  }

  void readDirectory(int fd, uint32_t object) {
    Directory dir(fd < 0 ? nullptr : fdopendir(fd));
    if (!dir) fail("open " + tree_.path(object));
    while (const dirent *entry = readdir(dir.get())) {
      const char *name = entry->d_name;
      if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
      if (object == 0 && strcmp(name, ".snapshots") == 0) continue;
      const uint32_t child = add(fd, name, name, object);
      if (child == kNone) continue;
      readDirectory(openat(fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC), child);
    }
  }

  WalkedTree tree_;
};

}  // namespace

std::string WalkedTree::path(uint32_t object) const {
  std::string path;
  for (; object != 0; object = names[objects[object].firstName].parent) {
    const std::string &name = names[objects[object].firstName].name;
    path = path.empty() ? name : name + "/" + path;
  }
  return path.empty() ? "." : path;
}

uint32_t WalkedTree::depth(uint32_t object) const {
  uint32_t depth = 0;
  for (; object != 0; object = names[objects[object].firstName].parent) depth++;
  return depth;
}

WalkedTree walkTree(const std::string &root) {
  return Walk(root).take();
}

std::map<std::string, std::string> readXattrs(const std::string &path) {
  std::map<std::string, std::string> all;
  std::string list(65536, '\0'), value(65536, '\0');
  const ssize_t length = llistxattr(path.c_str(), list.data(), list.size());
  if (length < 0) fail("list attributes of " + path);
  for (const char *name = list.data(); name < list.data() + length; name += strlen(name) + 1) {
    const ssize_t got = lgetxattr(path.c_str(), name, value.data(), value.size());
    if (got < 0) fail(std::string("get ") + name + " of " + path);
    all[name] = value.substr(0, static_cast<size_t>(got));
  }
  return all;
}

std::vector<uint64_t> blockMap(const std::string &path, uint64_t size) {
  constexpr uint32_t kExtents = 256;
  constexpr uint32_t kNoAddress = FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC |
                                  FIEMAP_EXTENT_ENCODED | FIEMAP_EXTENT_DATA_INLINE |
                                  FIEMAP_EXTENT_NOT_ALIGNED;
  std::vector<uint64_t> blocks((size + kBlock - 1) / kBlock);
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) fail("open " + path);
  std::vector<uint64_t> buffer((sizeof(fiemap) + kExtents * sizeof(fiemap_extent)) / sizeof(uint64_t));
  for (uint64_t at = 0; at < size;) {
    fiemap *map = reinterpret_cast<fiemap *>(buffer.data());
    *map = {};
    map->fm_start = at;
    map->fm_length = size - at;
    map->fm_flags = FIEMAP_FLAG_SYNC;
    map->fm_extent_count = kExtents;
    if (ioctl(fd, FS_IOC_FIEMAP, map) != 0) fail("extents of " + path);
    if (map->fm_mapped_extents == 0) break;
    for (uint32_t i = 0; i < map->fm_mapped_extents; i++) {
      const fiemap_extent &extent = map->fm_extents[i];
      at = extent.fe_logical + extent.fe_length;
      const uint64_t stop = std::min(blocks.size() * kBlock, at);
      const uint64_t unwritten = extent.fe_flags & FIEMAP_EXTENT_UNWRITTEN ? 1 : 0;
      for (uint64_t block = extent.fe_logical; block < stop; block += kBlock)
        blocks[block / kBlock] = extent.fe_flags & kNoAddress
                                     ? kUnknownBlock
                                     : (extent.fe_physical + block - extent.fe_logical) | unwritten;
    }
  }
  close(fd);
  return blocks;
}

}  // namespace bench
