#include "btrfs/unlink_fileset.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "btrfs/beneath.h"
#include "btrfs/file_handle.h"
#include "filesystem/error_text.h"

namespace kest {
namespace {

constexpr char kKept[] = ".unlinked";

struct Nested {
  UniqueFd parent;  // the directory in which it is linked
  std::string name;
  uint64_t id = 0;
};

// 0, or -errno and errorText().
int findNested(const std::string &path, Nested *nested) {
  const std::string wrong_kind = path + " is not a nested subvolume";
  std::string full = path;
  while (full.size() > 1 && full.back() == '/') full.pop_back();
  size_t slash = full.rfind('/');
  nested->name = slash == std::string::npos ? full : full.substr(slash + 1);
  std::string directory = slash == std::string::npos ? "." : full.substr(0, slash + 1);
  if (nested->name.empty() || nested->name == "." || nested->name == "..")
    return failWith(EINVAL, wrong_kind);
  InodeAddress address;
  uint64_t outside = 0;
  struct stat st {};
  int rc = openWithoutLinks(directory, &nested->parent);
  if (rc == 0) rc = addressOf(nested->parent.get(), nested->name.c_str(), &address);
  if (rc == 0 && address.ino != kFirstInode) return failWith(EINVAL, wrong_kind);
  if (rc == 0) rc = subvolumeIdOf(nested->parent.get(), &outside);
  if (rc == 0 && fstat(nested->parent.get(), &st) < 0) rc = -errno;
  // A subvolume that is merely mounted at the path is linked elsewhere.
  uint64_t linked_dir = 0;
  std::string linked_name;
  if (rc == 0) {
    rc = findRootRef(nested->parent.get(), outside, address.subvol_id, &linked_dir, &linked_name);
  }
  // -EXDEV, -ENOTTY: the object or its parent directory is not on a btrfs.
  if (rc < 0 && rc != -EXDEV && rc != -ENOTTY) return failWith(-rc, path + ": " + strerror(-rc));
  nested->id = address.subvol_id;
  const bool linked_here = rc > 0 && linked_dir == st.st_ino && linked_name == nested->name;
  return linked_here ? 0 : failWith(EINVAL, wrong_kind);
}

// Opens the directory for unlinked filesets and makes it if necessary. Opens it through the mount of
// `on`, because nothing can be renamed from one mount to another. Returns the descriptor or -errno.
int openKept(int on) {
  int top = openByInode(on, kTopLevel, kFirstInode, 0, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (top < 0) return top;
  UniqueFd top_fd(top);
  if (mkdirat(top, kKept, 0700) < 0 && errno != EEXIST) return -errno;
  int kept = openat(top, kKept, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (kept >= 0) return kept;
  return errno == ELOOP ? -ENOTDIR : -errno;
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

}  // namespace

int unlinkSubvolume(const MountedFileSystem &fs, const std::string &device, const std::string &path,
                    std::string *where) {
  const auto failed = [](const std::string &what, int rc) {
    return failWith(-rc, what + ": " + strerror(-rc));
  };
  Nested nested;
  if (int rc = findNested(path, &nested); rc < 0) return rc;
  Uuid fsid{};
  if (int rc = fileSystemIdOf(nested.parent.get(), &fsid); rc < 0) return failed(path, rc);
  if (fsid != fs.fsid) return failWith(EXDEV, path + " is not on the file system of " + device);
  const UniqueFd kept(openKept(nested.parent.get()));
  if (!kept) return failed(std::string(kKept) + " at the top of the file system", kept.get());
  std::string target;
  const int rc = movingSubvolume(nested.parent.get(), nested.name,
                                 [&] { return renameAside(nested, kept.get(), &target); });
  if (rc < 0) return failed(path, rc);
  *where = std::string(kKept) + "/" + target;
  return 0;
}

}  // namespace kest
