// From a path to the directory that a path call works in, and from its refusal to the reason.
#pragma once

#include <initializer_list>
#include <memory>
#include <string>

#include "filesystem/file_system.h"
#include "libkest/c_call.h"
#include "libkest/handle.h"

namespace kest {

// Where a path call works: the directory, held open, and the last component within it. When a call is
// refused, the very directory that refused it can be asked for the reason.
struct Place {
  std::shared_ptr<Directory> dir;
  bool kept = false;  // it was open since an earlier call
  std::string leaf;   // with the slashes that followed it
};

// Resolves all of `path`, which may be of any length, but its last component: beneath the root
// directory of the handle, through no link and into no other tree. This is the only place in which a
// path given to a path call is followed; the handle keeps the directories that were opened last. 0,
// -EXDEV outside, -ELOOP at a link, or -errno as the system call itself would have answered. `handle`
// NULL: anywhere, as the kernel does it.
int locate(kest_fssnap_handle *handle, const char *path, Place *place);

// After a call that found nothing: whether the directory was kept and somebody has removed it since.
// Nothing can have been done in it then, and the path may lead to another one by now.
bool forgetIfRemoved(kest_fssnap_handle *handle, const char *path, Place *place);

// 0 when the last component is inode `ino` or that is 0; -ESTALE when it is another, -errno. It can be
// exchanged afterwards only by users who may write to the directory, and who could do to the name
// themselves whatever is done to it.
int expectInode(const Place &place, uint64_t ino);

// What could have refused a call with EPERM: an object in the directory, or (NULL) the directory
// itself.
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
// An append-only directory takes new entries.
inline Suspect takingDirectory(const Place &place) {
  return {place.dir.get(), nullptr, false};
}
bool flagsForbid(const Suspect &suspect);

// The result of a step, with EPERM turned into EROFS where the flags of a suspect, or of the object
// itself, forbid it.
int outcome(int rc, std::initializer_list<Suspect> suspects);
int outcome(int rc, Inode &inode);

// Runs `body`(place) for one path, with the C interface's result.
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
