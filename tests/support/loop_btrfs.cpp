#include "support/loop_btrfs.h"

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "support/descriptor.h"

namespace testsupport {
namespace {

Descriptor openFolder(const std::string &path) {
  Descriptor fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) failWithErrno("open " + path);
  return fd;
}

// One of the three subvolume requests, which all take a name in a parent folder.
void requestAt(const std::string &path, unsigned long request, int sourceFd, uint64_t flags,
               const char *what) {
  std::filesystem::path whole(path);
  std::string name = whole.filename();
  Descriptor parent = openFolder(whole.parent_path());
  btrfs_ioctl_vol_args_v2 args{};
  if (name.size() >= sizeof args.name) throw std::runtime_error(std::string(what) + ": name too long");
  args.fd = sourceFd;
  args.flags = flags;
  memcpy(args.name, name.c_str(), name.size() + 1);
  if (ioctl(parent.get(), request, &args) < 0) failWithErrno(std::string(what) + " " + path);
}

}  // namespace

void runCommand(const std::string &command) {
  std::string line = "(" + command + ") >&2";
  int status = system(line.c_str());
  if (status != 0)
    throw std::runtime_error("'" + command + "' failed with status " + std::to_string(status));
}

LoopBtrfs::LoopBtrfs(const std::string &name, uint64_t bytes, const std::string &options,
                     const std::string &folder)
    : image_(folder + "/" + name + ".image"), mountPoint_(folder + "/" + name) {
  {
    Descriptor fd(open(image_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd.valid()) failWithErrno("create " + image_);
    if (ftruncate(fd.get(), static_cast<off_t>(bytes)) != 0) failWithErrno("ftruncate " + image_);
  }
  std::filesystem::create_directories(mountPoint_);
  runCommand("mkfs.btrfs -q -f '" + image_ + "' >/dev/null 2>&1");
  mount(options);
}

LoopBtrfs::~LoopBtrfs() {
  if (mounted_) umount2(mountPoint_.c_str(), MNT_DETACH);
  rmdir(mountPoint_.c_str());
  ::unlink(image_.c_str());
}

std::string LoopBtrfs::path(const std::string &below) const {
  if (below.empty() || below == "/") return mountPoint_;
  return mountPoint_ + "/" + below;
}

std::string LoopBtrfs::createSubvolume(const std::string &below) {
  std::string where = path(below);
  std::filesystem::create_directories(std::filesystem::path(where).parent_path());
  requestAt(where, BTRFS_IOC_SUBVOL_CREATE_V2, 0, 0, "create subvolume");
  return where;
}

std::string LoopBtrfs::snapshot(const std::string &subvolume, const std::string &below, bool readOnly) {
  std::string where = path(below);
  std::filesystem::create_directories(std::filesystem::path(where).parent_path());
  Descriptor source = openFolder(path(subvolume));
  requestAt(where, BTRFS_IOC_SNAP_CREATE_V2, source.get(), readOnly ? BTRFS_SUBVOL_RDONLY : 0,
            "create snapshot");
  return where;
}

void LoopBtrfs::destroySubvolume(const std::string &below) {
  std::string where = path(below);
  {
    Descriptor root = openFolder(where);
    // An immutable root would prevent the removal of the subvolume.
    int flags = 0;
    if (ioctl(root.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL))) {
      flags &= ~(FS_IMMUTABLE_FL | FS_APPEND_FL);
      ioctl(root.get(), FS_IOC_SETFLAGS, &flags);
    }
  }
  requestAt(where, BTRFS_IOC_SNAP_DESTROY_V2, 0, 0, "destroy subvolume");
}

void LoopBtrfs::commit() {
  Descriptor top = openFolder(mountPoint_);
  if (syncfs(top.get()) != 0) failWithErrno("syncfs " + mountPoint_);
}

void LoopBtrfs::remount(const std::string &options, const std::string &subvolume) {
  unmount();
  std::string all = options;
  if (!subvolume.empty()) all += (all.empty() ? "" : ",") + std::string("subvol=") + subvolume;
  mount(all);
}

void LoopBtrfs::unmount() {
  if (mounted_ && umount(mountPoint_.c_str()) != 0) failWithErrno("umount " + mountPoint_);
  mounted_ = false;
}

void LoopBtrfs::mount(const std::string &options) {
  runCommand("mount -t btrfs -o loop" + (options.empty() ? "" : "," + options) + " '" + image_ + "' '" +
             mountPoint_ + "'");
  mounted_ = true;
}

}  // namespace testsupport
