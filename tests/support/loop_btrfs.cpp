#include "support/loop_btrfs.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "support/descriptor.h"

namespace testsupport {
namespace {

std::string shellWord(const std::string &path) {
  std::string text = "'";
  for (const char c : path) text += c == '\'' ? "'\\''" : std::string(1, c);
  return text + "'";
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
  runCommand("mkfs.btrfs -q -f " + shellWord(image_) + " >/dev/null 2>&1");
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
  const std::string where = path(below);
  std::filesystem::create_directories(std::filesystem::path(where).parent_path());
  runCommand("btrfs -q subvolume create " + shellWord(where));
  return where;
}

std::string LoopBtrfs::snapshot(const std::string &subvolume, const std::string &below, bool readOnly) {
  const std::string where = path(below);
  std::filesystem::create_directories(std::filesystem::path(where).parent_path());
  runCommand(std::string("btrfs -q subvolume snapshot ") + (readOnly ? "-r " : "") +
             shellWord(path(subvolume)) + " " + shellWord(where));
  return where;
}

void LoopBtrfs::destroySubvolume(const std::string &below) {
  // An immutable root would keep the subvolume; that of a snapshot cannot be changed, nor does it.
  runCommand("chattr -ia " + shellWord(path(below)) + " 2>/dev/null; btrfs -q subvolume delete " +
             shellWord(path(below)));
}

void LoopBtrfs::commit() {
  runCommand("sync -f " + shellWord(mountPoint_));
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
  runCommand("mount -t btrfs -o loop" + (options.empty() ? "" : "," + options) + " " +
             shellWord(image_) + " " + shellWord(mountPoint_));
  mounted_ = true;
}

}  // namespace testsupport
