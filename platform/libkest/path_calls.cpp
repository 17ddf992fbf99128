// Path calls with the file system's own errno values, and calls that take an object's descriptor; see
// the contracts in kest.h.
#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "filesystem/clone_attribute.h"
#include "libkest/kept_attributes.h"
#include "libkest/open_file.h"
#include "libkest/path_resolution.h"

namespace kest {
namespace {

constexpr mode_t kModeBits = 07777;
// Two processes can work on two names of one clone parent. One then sets the flag again while the other
// needs it cleared.
constexpr int kLiftAttempts = 1000;

// Users can rename what they own between the creation of an object and this check.
int setModeOfNew(const Place &place, mode_t type, mode_t mode, dev_t device = 0) {
  std::unique_ptr<Inode> made;
  struct stat st;
  if (int rc = place.dir->openObject(place.leaf, &made, &st); rc != 0) return rc;
  const bool fresh = st.st_uid == geteuid() && st.st_nlink == 1 && st.st_size == 0;
  if ((st.st_mode & S_IFMT) != type || st.st_rdev != device || !fresh) return -ESTALE;
  return made->setExactMode(mode);
}

int truncateFile(const Place &place, int64_t size, uint64_t ino) {
  std::unique_ptr<Inode> file;
  struct stat st;
  if (int rc = place.dir->openObject(place.leaf, &file, &st); rc != 0) return rc;
  if (ino != 0 && st.st_ino != ino) return -ESTALE;
  if (S_ISLNK(st.st_mode)) return -ELOOP;
  if (S_ISDIR(st.st_mode)) return -EISDIR;
  if (!S_ISREG(st.st_mode)) return -EINVAL;

  if (int rc = file->openForWriting(); rc != 0) return rc;
  KeptCapability capability;
  if (int rc = capability.save(*file); rc != 0) return rc;
  const int rc = outcome(file->truncate(size), *file);
  const int kept = capability.putBackIfLost(*file);  // the capability is gone even if truncate failed
  return rc != 0 ? rc : kept;
}

int removeDirectory(const Place &place, uint64_t ino) {
  if (int rc = expectInode(place, ino); rc != 0) return rc;
  const int nested = place.dir->holdsFileset(place.leaf);
  if (nested < 0) return nested;
  if (nested > 0) return -EPERM;  // the file system could destroy an empty one
  return outcome(place.dir->removeDirectory(place.leaf), {object(place), givingDirectory(place)});
}

// Clears the immutable flag if `inode` is a clone parent that nothing but this flag protects. 1; 0: it
// is none; or -errno.
int liftParent(Inode &inode, const struct stat &st, LiftedFlags *lifted) {
  if (!S_ISREG(st.st_mode)) return 0;
  CloneAttribute attribute;
  int rc = readCloneAttribute(inode, &attribute);
  if (rc <= 0 || !attribute.isParent()) return std::min(rc, 0);
  Protection protection;
  rc = inode.readProtection(&protection);
  if (rc != 0 || protection.append_only) return rc;
  rc = lifted->lift({.immutable = true, .append_only = false});
  return rc == 0 ? 1 : rc;
}

// Runs `call`, which removes a name from `named` or adds one. Clears the immutable flag of a clone
// parent for that time. The flags of `directories` still forbid the call. 0 or -errno.
template <typename Call>
int changeNames(const Place &named, std::initializer_list<Suspect> directories, Call call) {
  int rc = call();
  if (rc != -EPERM) return rc;
  if (std::any_of(directories.begin(), directories.end(), flagsForbid)) return -EROFS;
  for (int attempt = 0; attempt < kLiftAttempts && rc == -EPERM; attempt++) {
    std::unique_ptr<Inode> inode;
    struct stat st;
    if (int opened = named.dir->openObject(named.leaf, &inode, &st); opened != 0) return opened;
    LiftedFlags lifted(*inode);
    const int parent = liftParent(*inode, st, &lifted);
    if (parent < 0) return parent;
    if (parent == 0) return flagsForbid(object(named)) ? -EROFS : -EPERM;
    rc = call();
    const int set = lifted.setAgain();
    if (rc == 0) rc = set;
  }
  return rc == -EPERM ? -EROFS : rc;
}

// Clears the flags of the nested fileset's own root directory for the move. Flags of the other
// directories still forbid it. 0 or -errno.
int moveFileset(const Place &source, const Place &target, uint64_t id) {
  const auto move = [&] {
    return source.dir->renameFileset(source.leaf, id, *target.dir, target.leaf);
  };
  if (int rc = move(); rc != -EPERM) return rc;
  if (flagsForbid(givingDirectory(source)) || flagsForbid(takingDirectory(target))) return -EROFS;
  std::unique_ptr<Inode> root;
  struct stat st;
  Protection protection;
  int rc = source.dir->openObject(source.leaf, &root, &st);
  if (rc == 0) rc = root->readProtection(&protection);
  if (rc != 0 || !protection.any()) return rc != 0 ? rc : -EPERM;
  LiftedFlags lifted(*root);
  if (rc = lifted.lift(protection); rc != 0) return rc;
  rc = move();
  const int set = lifted.setAgain();
  return rc != 0 ? rc : set;
}

// Call this when the name `path` is about to lead to something else.
void forget(kest_fssnap_handle *active, const char *path) {
  if (active != nullptr) active->directories.drop(path);
}

// Returns the inode that `open`(place, &inode) opens; NULL and errno on failure.
template <typename Open>
kest_ifile_t *openAtPath(kest_fssnap_handle *handle, const char *path, Open open) {
  kest_ifile_t *file = nullptr;
  onPath(handle, path, [&](const Place &place) {
    std::unique_ptr<Inode> inode;
    int rc = handle == nullptr ? -EINVAL : open(place, &inode);
    if (rc == 0) file = handOut(std::move(inode));
    return rc;
  });
  return file;
}

}  // namespace
}  // namespace kest

using namespace kest;

extern "C" {

int kest_unlink(kest_fssnap_handle_t *active, const char *path, uint64_t ino) {
  return onPath(active, path, [=](const Place &place) {
    if (int rc = expectInode(place, ino); rc != 0) return rc;
    return changeNames(place, {givingDirectory(place)},
                       [&] { return place.dir->removeFile(place.leaf); });
  });
}

int kest_rmdir(kest_fssnap_handle_t *active, const char *path, uint64_t ino) {
  return onPath(active, path, [=](const Place &place) {
    forget(active, path);
    return removeDirectory(place, ino);
  });
}

int kest_rename_noreplace(kest_fssnap_handle_t *active, const char *from, const char *to,
                          uint64_t ino) {
  return onTwoPaths(active, from, to, [=](const Place &source, const Place &target) {
    if (int rc = expectInode(source, ino); rc != 0) return rc;
    forget(active, from);
    forget(active, to);
    return changeNames(source, {givingDirectory(source), takingDirectory(target)},
                       [&] { return source.dir->rename(source.leaf, *target.dir, target.leaf); });
  });
}

int kest_move_junction(kest_fssnap_handle_t *active, const char *from, const char *to, uint64_t id) {
  return onTwoPaths(active, from, to, [=](const Place &source, const Place &target) {
    forget(active, from);
    forget(active, to);
    return moveFileset(source, target, id);
  });
}

int kest_link(kest_fssnap_handle_t *active, const char *from, const char *to, uint64_t ino) {
  return onTwoPaths(active, from, to, [=](const Place &source, const Place &target) {
    std::unique_ptr<Inode> inode;
    struct stat st;
    if (int rc = source.dir->openObject(source.leaf, &inode, &st); rc != 0) return rc;
    if (ino != 0 && st.st_ino != ino) return -ESTALE;
    return changeNames(source, {takingDirectory(target)},
                       [&] { return target.dir->link(*inode, target.leaf); });
  });
}

int kest_carries_clone(kest_fssnap_handle_t *active, const char *path) {
  int answer = 0;
  const int rc = onPath(active, path, [&](const Place &place) {
    answer = place.dir->carriesClone(place.leaf);
    return std::min(answer, 0);
  });
  return rc == 0 ? answer : rc;
}

int kest_truncate(kest_fssnap_handle_t *active, const char *path, int64_t size, uint64_t ino) {
  return onPath(active, path, [=](const Place &place) { return truncateFile(place, size, ino); });
}

int kest_mkdir(kest_fssnap_handle_t *active, const char *path, mode_t mode) {
  return onPath(active, path, [=](const Place &place) {
    int rc = outcome(place.dir->makeDirectory(place.leaf, mode & kModeBits), {takingDirectory(place)});
    return rc == 0 ? setModeOfNew(place, S_IFDIR, mode) : rc;
  });
}

int kest_mknod(kest_fssnap_handle_t *active, const char *path, mode_t mode, dev_t device) {
  return onPath(active, path, [=](const Place &place) {
    int rc = outcome(place.dir->makeNode(place.leaf, mode, device), {takingDirectory(place)});
    mode_t type = (mode & S_IFMT) != 0 ? mode & S_IFMT : S_IFREG;
    return rc == 0 ? setModeOfNew(place, type, mode, S_ISCHR(type) || S_ISBLK(type) ? device : 0) : rc;
  });
}

int kest_symlink(kest_fssnap_handle_t *active, const char *target, const char *path) {
  return onPath(active, path, [=](const Place &place) {
    if (target == nullptr) return -EINVAL;
    return outcome(place.dir->makeSymlink(place.leaf, target), {takingDirectory(place)});
  });
}

int kest_anchor(kest_fssnap_handle_t *active, const char *path, int fd) {
  return cCall([=] {
    if (active == nullptr || path == nullptr) return -EINVAL;
    std::unique_ptr<Directory> anchor;
    if (int rc = active->tree->duplicateDirectory(fd, &anchor); rc != 0) return rc;
    active->anchor = std::move(anchor);
    active->anchor_path = path;
    active->directories.clear();  // their paths can lead elsewhere now
    return 0;
  });
}

int kest_open_path(kest_fssnap_handle_t *handle, const char *path) {
  return onPath(handle, path, [](const Place &place) {
    std::unique_ptr<Inode> inode;
    struct stat st;
    int rc = place.dir->openObject(place.leaf, &inode, &st);
    return rc == 0 ? inode->takeDescriptor() : rc;
  });
}

kest_ifile_t *kest_iopen_path(kest_fssnap_handle_t *handle, const char *path) {
  return openAtPath(handle, path, [=](const Place &place, std::unique_ptr<Inode> *inode) {
    return handle->tree->openNamed(*place.dir, place.leaf, inode);
  });
}

kest_ifile_t *kest_icreate(kest_fssnap_handle_t *active, const char *path, mode_t mode) {
  return openAtPath(active, path, [=](const Place &place, std::unique_ptr<Inode> *inode) {
    // Only a directory can have a name with a trailing slash.
    if (place.leaf.size() > 1 && place.leaf.back() == '/') return -EISDIR;
    return outcome(active->tree->createFile(*place.dir, place.leaf, mode & 07777, inode),
                   {takingDirectory(place)});
  });
}

int kest_lstat(kest_fssnap_handle_t *handle, const char *path, struct stat *st) {
  return onPath(handle, path, [=](const Place &place) {
    return st == nullptr ? -EINVAL : place.dir->stat(place.leaf, st);
  });
}

}  // extern "C"
