// Objects by path, for paths of any length in the fileset, the work directory and the snapshot; and the
// paths of an inode number.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"
#include "kest.h"

// When a directory goes home, it leaves a symbolic link to its place at its temporary location. Returns
// `path` with such links replaced by their targets. Keeps all other links: the library follows none.
std::string resolveOwnLinks(const std::string &path);

// Like lstat. rc of a failure is the errno.
Result statPath(const std::string &path, struct stat *st);

// Opens the object with O_PATH, without following a symbolic link. rc of a failure is the errno.
Result openObject(const std::string &path, UniqueFd *fd);

// Reads the whole target of the symbolic link at `path`. rc of a failure is the errno; EINVAL: not a
// link.
Result readLinkTarget(const std::string &path, std::string *target);

// Returns true if the active object is inode `ino`, or if a process of this run made it in place of
// that inode, so that it may get the attributes `attr` of the snapshot's inode. An object made by this
// run has at most as many names as `attr` says, belongs to this user or already to the final owner, and
// is younger than the work directory. Objects that other users move or link to the path fail that test.
bool isInodeOrReplacement(const struct stat &st, uint64_t ino, const kest_iattr64_t &attr);

// Returns true only if a process of this run made the object in place of the snapshot's inode `snap`,
// which is gone: an object with its number belongs to somebody else. Also false if `snap` cannot be
// examined.
bool isReplacement(const struct stat &st, const kest_ifile_t *snap);

// Finds all paths of inode `ino` in the tree of `handle` and puts `root` before each; with "" they are
// relative. rc of a failure is the errno. An inode without a name is ENOENT, never an empty result.
Result findInodePaths(kest_fssnap_handle_t *handle, uint64_t ino, const std::string &root,
                      std::vector<std::string> *paths);

// Finds the first of these paths in byte order, relative to the tree's root.
Result firstPath(kest_fssnap_handle_t *handle, uint64_t ino, std::string *path);
