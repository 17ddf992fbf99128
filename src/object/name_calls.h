// The steps that change names and sizes in the active fileset. Paths may lead through the links that
// directories left when they went home. Each step clears the flags that forbid it, along all its paths,
// and is repeated. `ino`, unless 0, is the inode that the caller means; ESTALE: the path names another
// one. *clearing_failed tells that flags could not be cleared. rc of a failure is the errno.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "base/result.h"
#include "object/open_object.h"

Result unlinkName(const std::string &path, uint64_t ino, bool *clearing_failed = nullptr);
// Sets *carries if the object has the attribute of clones and clone parents.
Result carriesClone(const std::string &path, bool *carries);
Result removeEmptyDir(const std::string &path, uint64_t ino);  // EPERM for a nested fileset

// Rename without ever replacing an object; EEXIST if `to` exists. renameAside clears flags along `from`
// only, because nothing in the work directory carries any.
Result renameAside(const std::string &from, const std::string &to, uint64_t ino);
Result renameBack(const std::string &from, const std::string &to);

// Move the nested fileset `id` into the work directory and out of it, likewise without replacing. Its
// own flags stay unchanged.
Result moveFilesetAside(const std::string &from, const std::string &to, uint64_t id);
Result moveFilesetHome(const std::string &from, const std::string &to, uint64_t id);

Result linkName(const std::string &from, const std::string &to, uint64_t ino);
Result truncatePath(const std::string &path, int64_t size, uint64_t ino,
                    bool *clearing_failed = nullptr);
Result makeDir(const std::string &path, mode_t mode);  // ignores bits other than 07777
Result makeSymlink(const std::string &target, const std::string &path);

// Makes the link that a directory leaves at its temporary location when it goes home. Neither resolves
// the path nor repeats the call: the location contains no links, and no directory above it carries a
// flag.
Result leaveOwnLink(const std::string &target, const std::string &location);

Result makeNode(const std::string &path, mode_t mode, dev_t device);

// Creates a regular file and opens it for reading and writing. It gets the mode of `wanted` at once if
// that is safe before its owner is set, else 0600. EEXIST if the name is taken.
Result createFile(const std::string &path, const kest_facts_t &wanted, OpenObject *file);
