// Takes a nested subvolume out of the tree that it stands in, with all its data.

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "btrfs/beneath.h"
#include "btrfs/file_handle.h"
#include "btrfs/mounts.h"
#include "btrfs/subvolume.h"
#include "commands/command_line.h"

namespace kest {
namespace {

constexpr char kUsage[] =
    "Usage: ktunlinkfileset DEVICE -J PATH\n"
    "Moves the nested subvolume at PATH to .unlinked/<id>-<name> at the top of the file system of "
    "DEVICE\n"
    "and prints that name. Nothing is deleted. The top of the file system need not be mounted. No "
    "symbolic\n"
    "link may stand in PATH.\n";

constexpr char kKept[] = ".unlinked";

struct Nested {
  UniqueFd parent;  // directory that it stands in
  std::string name;
  uint64_t id = 0;
};

// False: *problem.
bool findNested(const std::string &path, Nested *nested, std::string *problem) {
  std::string full = path;
  while (full.size() > 1 && full.back() == '/') full.pop_back();
  size_t slash = full.rfind('/');
  nested->name = slash == std::string::npos ? full : full.substr(slash + 1);
  std::string directory = slash == std::string::npos ? "." : full.substr(0, slash + 1);
  *problem = path + " is not a nested subvolume";
  if (nested->name.empty() || nested->name == "." || nested->name == "..") return false;
  InodeAddress address;
  uint64_t outside = 0;
  struct stat st;
  // Links on the way are somebody's who wants another one unlinked.
  int rc = openWithoutLinks(directory, &nested->parent);
  if (rc == 0) rc = addressOf(nested->parent.get(), nested->name.c_str(), &address);
  if (rc == 0 && address.ino != kFirstInode) return false;
  if (rc == 0) rc = subvolumeIdOf(nested->parent.get(), &outside);
  if (rc == 0 && fstat(nested->parent.get(), &st) < 0) rc = -errno;
  // A subvolume that is only mounted there is linked somewhere else.
  uint64_t linked_dir = 0;
  std::string linked_name;
  if (rc == 0) {
    rc = findRootRef(nested->parent.get(), outside, address.subvol_id, &linked_dir, &linked_name);
  }
  if (rc == -EXDEV || rc == -ENOTTY) return false;  // it, or what it stands in, is of another kind
  if (rc < 0) {
    *problem = path + ": " + strerror(-rc);
    return false;
  }
  nested->id = address.subvol_id;
  return rc > 0 && linked_dir == st.st_ino && linked_name == nested->name;
}

// The directory for unlinked filesets, made where it is missing. The descriptor or -errno. Through the
// mount of `on`: directories of different mounts take no renames between them.
int openKept(int on) {
  int top = openByInode(on, kTopLevel, kFirstInode, 0, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (top < 0) return top;
  UniqueFd top_fd(top);
  if (mkdirat(top, kKept, 0700) < 0 && errno != EEXIST) return -errno;
  int kept = openat(top, kKept, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  return kept < 0 ? -errno : kept;
}

int renameAside(const Nested &nested, int kept, std::string *target) {
  std::string prefix = std::to_string(nested.id) + "-";
  for (int attempt = 0;; attempt++) {
    std::string suffix = attempt ? "." + std::to_string(attempt) : "";
    *target = prefix + nested.name.substr(0, NAME_MAX - prefix.size() - suffix.size()) + suffix;
    if (renameat2(nested.parent.get(), nested.name.c_str(), kept, target->c_str(), RENAME_NOREPLACE) ==
        0) {
      return 0;
    }
    if (errno != EEXIST) return -errno;
  }
}

// A read-only subvolume refuses the move, since its ".." changes: the flag is taken off meanwhile. Not
// from a received one, whose origin the kernel may forget then.
int renameReadOnly(const Nested &nested, int kept, std::string *target) {
  UniqueFd root(openat(nested.parent.get(), nested.name.c_str(),
                       O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!root) return -errno;
  struct btrfs_ioctl_get_subvol_info_args info;
  memset(&info, 0, sizeof(info));
  if (ioctl(root.get(), BTRFS_IOC_GET_SUBVOL_INFO, &info) < 0) return -errno;
  const Uuid none{};
  bool received = memcmp(info.received_uuid, none.data(), none.size()) != 0;
  if (!(info.flags & BTRFS_ROOT_SUBVOL_RDONLY) || received) return -EROFS;
  uint64_t flags = 0;
  if (ioctl(root.get(), BTRFS_IOC_SUBVOL_SETFLAGS, &flags) < 0) return -errno;
  int rc = renameAside(nested, kept, target);
  flags = BTRFS_SUBVOL_RDONLY;
  if (ioctl(root.get(), BTRFS_IOC_SUBVOL_SETFLAGS, &flags) < 0 && rc == 0) rc = -errno;
  return rc;
}

int unlinkFileset(const CommandLine &line) {
  const std::string device = line.word(0), path = line.option('J');
  MountedFileSystem fs;
  int rc = findFileSystem(device, &fs);
  if (rc == -ENODEV) return line.fail(device + " is no mounted btrfs");
  if (rc < 0) return line.fail(device, rc);
  Nested nested;
  std::string problem;
  if (!findNested(path, &nested, &problem)) return line.fail(problem);
  Uuid fsid{};
  rc = fileSystemIdOf(nested.parent.get(), &fsid);
  if (rc < 0) return line.fail(path, rc);
  if (fsid != fs.fsid) return line.fail(path + " is not on the file system of " + device);
  int kept = openKept(nested.parent.get());
  if (kept < 0) return line.fail(std::string(kKept) + " at the top of the file system", kept);
  UniqueFd kept_fd(kept);
  std::string target;
  rc = renameAside(nested, kept, &target);
  if (rc == -EROFS) rc = renameReadOnly(nested, kept, &target);
  if (rc < 0) return line.fail(path, rc);
  printf("%s/%s\n", kKept, target.c_str());
  return line.finish();
}

}  // namespace
}  // namespace kest

int main(int argc, char **argv) {
  kest::CommandLine line("ktunlinkfileset", kest::kUsage);
  int status;
  if (!line.parse(argc, argv, "J:", 1, &status)) return status;
  if (line.option('J').empty()) return line.usageError("-J PATH is needed");
  return kest::unlinkFileset(line);
}
