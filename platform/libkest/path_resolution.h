// Finds the directory in which a path call works, and the reason if it is refused.
#pragma once

#include <initializer_list>
#include <memory>
#include <string>

#include "filesystem/file_system.h"
#include "libkest/c_call.h"
#include "libkest/handle.h"

namespace kest {

// The place at which a path call works: a directory, held open, and the last component in it. If the
// call is refused, the same directory can be examined for the reason.
struct Place {
  std::shared_ptr<Directory> dir;
  bool kept = false;  // it was opened by an earlier call
  std::string leaf;   // with its trailing slashes
};

// Resolves all of `path`, which can be of any length, except its last component: beneath the root
// directory of the handle, without symbolic links and without leaving the tree. Only this function
// resolves the path of a path call. The handle caches the directories that were opened last. 0; -EXDEV:
// outside; -ELOOP: a symbolic link; or the -errno of the system call. With `handle` NULL the kernel
// resolves the path as usual.
int locate(kest_fssnap_handle *handle, const char *path, Place *place);

// Call this if a call found nothing. Returns true if the directory came from the cache and has been
// removed since. Then nothing can have been done in it, and the path may lead to another directory now.
bool forgetIfRemoved(kest_fssnap_handle *handle, const char *path, Place *place);

// Returns 0 if the last component is inode `ino` or `ino` is 0; -ESTALE: another inode; or -errno.
// After the check, only users with write access to the directory can exchange the name, and they could
// do the same to it without this call.
int expectInode(const Place &place, uint64_t ino);

// An object that may be the reason for EPERM: `name` in the directory, or (NULL) the directory itself.
struct Suspect {
  Directory *dir;
  const std::string *name;
  bool append_only_refuses;
};
inline Suspect object(const Place &place) {
  return {place.dir.get(), &place.leaf, true};
}
inline Suspect givingDirectory(const Place &place) {
  return {place.dir.get(), nullptr, true};
}
// An append-only directory accepts new entries.
inline Suspect takingDirectory(const Place &place) {
  return {place.dir.get(), nullptr, false};
}
bool flagsForbid(const Suspect &suspect);

// Returns the result of a step, with EPERM turned into EROFS if flags of a suspect, or of the inode,
// forbid it.
int outcome(int rc, std::initializer_list<Suspect> suspects);
int outcome(int rc, Inode &inode);

// Runs `body`(place) for one path and returns its result in the form of the C interface.
template <typename Body>
int onPath(kest_fssnap_handle *active, const char *path, Body body) {
  return cCall([&] {
    Place place;
    int rc = locate(active, path, &place);
    if (rc == 0) rc = body(place);
    if (rc == -ENOENT && forgetIfRemoved(active, path, &place)) {
      rc = locate(active, path, &place);
      if (rc == 0) rc = body(place);
    }
    return rc;
  });
}

template <typename Body>
int onTwoPaths(kest_fssnap_handle *active, const char *from, const char *to, Body body) {
  return onPath(active, from, [&](const Place &source) {
    Place target;
    int rc = locate(active, to, &target);
    if (rc == 0) rc = body(source, target);
    if (rc == -ENOENT && forgetIfRemoved(active, to, &target)) {
      rc = locate(active, to, &target);
      if (rc == 0) rc = body(source, target);
    }
    return rc;
  });
}

}  // namespace kest
