// Path calls by which a file gets and loses names; kest.h has their contracts.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <initializer_list>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kest.h"
#include "libkest/clone_attribute.h"
#include "libkest/lifted_flags.h"
#include "libkest/posix_view.h"

namespace kest {
namespace {

// Two processes may be at two names of one parent: the one sets the flag again while the other still
// needs it lifted.
constexpr int kAttempts = 1000;

// 1 with the flag lifted where `place` is a clone parent that nothing but its immutable flag protects;
// 0; -errno.
int liftParent(const Place &place, LiftedFlags *lifted) {
  UniqueFd fd;
  struct stat st;
  if (int rc = openObject(place, &fd, &st); rc != 0) return rc;
  if (!S_ISREG(st.st_mode)) return 0;
  CloneAttribute attribute;
  int rc = readCloneAttribute(fd.get(), &attribute);
  if (rc <= 0 || !attribute.isParent()) return std::min(rc, 0);
  Protection protection;
  rc = readProtection(fd.get(), "", &protection);
  if (rc != 0 || protection.append_only) return rc;
  rc = lifted->lift(fd.get(), {.immutable = true, .append_only = false});
  return rc == 0 ? 1 : rc;
}

// Runs `call`, a system call that takes a name of `named` or gives it one, with the flags of a clone
// parent out of its way; those of `directories` stay in it. 0 or -errno.
template <typename Call>
int changeNames(const Place &named, std::initializer_list<Suspect> directories, Call call) {
  int rc = call() == 0 ? 0 : -errno;
  if (rc != -EPERM) return rc;
  if (std::any_of(directories.begin(), directories.end(), flagsForbid)) return -EROFS;
  for (int attempt = 0; attempt < kAttempts && rc == -EPERM; attempt++) {
    LiftedFlags lifted;
    int parent = liftParent(named, &lifted);
    if (parent < 0) return parent;
    if (parent == 0) return flagsForbid(object(named)) ? -EROFS : -EPERM;
    rc = call() == 0 ? 0 : -errno;
    int set = lifted.setAgain();
    if (rc == 0) rc = set;
  }
  return rc == -EPERM ? -EROFS : rc;
}

}  // namespace
}  // namespace kest

using namespace kest;

extern "C" int kest_unlink(kest_fssnap_handle_t *active, const char *path, uint64_t ino) {
  return onPath(active, path, [=](const Place &place) {
    if (int rc = expectInode(place, ino); rc != 0) return rc;
    return changeNames(place, {givingDirectory(place)},
                       [&] { return unlinkat(place.dir.get(), place.leaf.c_str(), 0); });
  });
}

extern "C" int kest_rename_noreplace(kest_fssnap_handle_t *active, const char *from, const char *to,
                                     uint64_t ino) {
  return onTwoPaths(active, from, to, [=](const Place &source, const Place &target) {
    if (int rc = expectInode(source, ino); rc != 0) return rc;
    return changeNames(source, {givingDirectory(source), takingDirectory(target)}, [&] {
      return renameat2(source.dir.get(), source.leaf.c_str(), target.dir.get(), target.leaf.c_str(),
                       RENAME_NOREPLACE);
    });
  });
}

extern "C" int kest_link(kest_fssnap_handle_t *active, const char *from, const char *to, uint64_t ino) {
  return onTwoPaths(active, from, to, [=](const Place &source, const Place &target) {
    UniqueFd fd;
    struct stat st;
    if (int rc = openObject(source, &fd, &st); rc != 0) return rc;
    if (ino != 0 && st.st_ino != ino) return -ESTALE;
    return changeNames(source, {takingDirectory(target)}, [&] {
      return linkat(fd.get(), "", target.dir.get(), target.leaf.c_str(), AT_EMPTY_PATH);
    });
  });
}
