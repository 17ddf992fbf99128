// The steps that change names and sizes in the active fileset. Each takes paths that may lead through
// links that directories left when they went home, clears flags that forbid the step (of `path`, and of
// both paths where there are two) and repeats it. `ino`, where it is not 0, is the inode that is meant
// (ESTALE: the path names another one). *clearing_failed tells that the flags could not be cleared. rc
// of a failure is the errno.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "base/result.h"
#include "object/open_object.h"

Result unlinkName(const std::string &path, uint64_t ino, bool *clearing_failed = nullptr);
Result removeEmptyDir(const std::string &path, uint64_t ino);  // of a nested fileset: EPERM

// Renames without ever replacing anything: EEXIST where `to` exists. renameAside clears flags along
// `from` alone: nothing in the work directory carries any.
Result renameAside(const std::string &from, const std::string &to, uint64_t ino);
Result renameBack(const std::string &from, const std::string &to);

// The same for the nested fileset `id`, whose own flags stay as they are: to a place in the work
// directory, and from there.
Result moveFilesetAside(const std::string &from, const std::string &to, uint64_t id);
Result moveFilesetHome(const std::string &from, const std::string &to, uint64_t id);

Result linkName(const std::string &from, const std::string &to, uint64_t ino);
Result truncatePath(const std::string &path, int64_t size, uint64_t ino,
                    bool *clearing_failed = nullptr);
Result makeDir(const std::string &path, mode_t mode);  // other bits than 07777 are ignored
Result makeSymlink(const std::string &target, const std::string &path);

// Makes the link that a directory leaves at its temporary location when it goes home. Neither resolves
// nor repeats: the location is the end of its path, and nothing above it carries a flag.
Result leaveOwnLink(const std::string &target, const std::string &location);

Result makeNode(const std::string &path, mode_t mode, dev_t device);

// Makes a regular file that is to have the mode of `wanted`, open for reading and writing. It has it at
// once where that is safe before its owner is set, else mode 0600. EEXIST where the name is taken.
Result createFile(const std::string &path, const kest_facts_t &wanted, OpenObject *file);
