// Path calls on a fileset with the file system's own error numbers; kest.h has their contracts.
#pragma once

#include <initializer_list>
#include <string>

#include <sys/stat.h>

#include "btrfs/unique_fd.h"
#include "kest.h"
#include "libkest/c_call.h"

namespace kest {

// Where a path call works: the directory, held open, and the last component within it, so that the
// question why a call was refused is asked of the very directory that refused it.
struct Place {
  UniqueFd dir;      // O_PATH
  std::string leaf;  // with the slashes that followed it
};

// Resolves all of `path`, which may be of any length, but its last component: beneath the root
// directory of the handle, through no link and into no other tree. The only place in which a path given
// to a path call is followed. 0, -EXDEV outside, -ELOOP at a link, or -errno as the system call itself
// would have answered. `handle` null: anywhere, as the system does.
int locate(kest_fssnap_handle *handle, const char *path, Place *place);

// 0 when the last component is inode `ino` or that is 0; -ESTALE when it is another, -errno. Whoever
// can still exchange it afterwards has the right to write to the directory, and could do himself
// whatever is done to the name.
int expectInode(const Place &place, uint64_t ino);

// Opens the object itself with O_PATH, so that a device or FIFO is not opened for real. 0 or -errno.
int openObject(const Place &place, UniqueFd *fd, struct stat *st);

// Gives an object exactly the twelve bits of `mode` after a step in which the kernel made something
// else of them (umask, inherited ACL or group bit, change of owner). 0 or -errno.
int setExactMode(int fd, mode_t mode);

// What could have refused a call with EPERM.
struct Suspect {
  int dir_fd;
  const char *name;  // "" the directory itself
  bool append_only_refuses;
};
bool flagsForbid(const Suspect &suspect);

inline Suspect object(const Place &place) {
  return {place.dir.get(), place.leaf.c_str(), true};
}
inline Suspect givingDirectory(const Place &place) {
  return {place.dir.get(), "", true};
}
// An append-only directory takes new entries.
inline Suspect takingDirectory(const Place &place) {
  return {place.dir.get(), "", false};
}

// Result of a system call: 0, or -errno with EPERM turned into EROFS where a suspect's flags forbid it.
int outcome(int result, std::initializer_list<Suspect> suspects);

// Whether `leaf` is a nested subvolume. 1, 0 or -errno.
int isNestedSubvolume(const Place &place);

// Runs `body`(place) for one path, with the C interface's result.
template <typename Body>
int onPath(kest_fssnap_handle *active, const char *path, Body body) {
  return cCall([&] {
    Place place;
    int rc = locate(active, path, &place);
    return rc == 0 ? body(place) : rc;
  });
}

template <typename Body>
int onTwoPaths(kest_fssnap_handle *active, const char *from, const char *to, Body body) {
  return onPath(active, from, [&](const Place &source) {
    Place target;
    int rc = locate(active, to, &target);
    return rc == 0 ? body(source, target) : rc;
  });
}

}  // namespace kest
