// Objects by path: paths of any length in fileset, work directory and snapshot, also through the links
// that directories leave in the work directory when they go home.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "base/result.h"
#include "base/unique_fd.h"
#include "kest.h"

// A directory that has gone home leaves a symbolic link at its temporary location, which names its
// place. Returns `path` with such links replaced by their targets, unchanged where none is on the way.
// Any other link stays in the path: the library follows none.
std::string resolveOwnLinks(const std::string &path);

// lstat. rc of a failure is the errno.
Result statPath(const std::string &path, struct stat *st);

// Opens the object with O_PATH; a link itself. rc of a failure is the errno.
Result openObject(const std::string &path, UniqueFd *fd);

// Target of the symbolic link at `path`, whole. rc of a failure is the errno (EINVAL: no link).
Result readLinkTarget(const std::string &path, std::string *target);

// True when the object of the active fileset is inode `ino`, or a process of this run made it in that
// inode's stead, so that it may be given the attributes `attr` of the snapshot's inode. The latter has
// no more names than that, is ours or already the owner's, and younger than the work directory; an
// object that somebody moves or links to its place is not.
bool isInodeOrReplacement(const struct stat &st, uint64_t ino, const kest_iattr64_t &attr);

// True when a process of this run made the object in the stead of the snapshot's inode `snap`, which is
// gone: an object with its number could only be a stranger's. False also when `snap` cannot be looked
// at.
bool isReplacement(const struct stat &st, const kest_ifile_t *snap);
