// The work directory and its files. Users who may write to the fileset's root could replace it with one
// of their own, so every file in it is reached through a descriptor of the directory.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"
#include "formats/work_names.h"

// Hexadecimal on purpose (03525): work directories have always had this mode.
constexpr int kWorkDirMode = 0x755;

// ---- paths

// Returns the path of `name` (formats/work_names.h) in the work directory; "" with path2long set if it
// would be too long. Returns an absolute path as it is.
std::string workPath(std::string_view name);

// Returns the part of a path below the work directory that follows the directory.
std::string_view nameInWorkDir(std::string_view path);

// Returns true if the path lies below the work directory.
bool inWorkDir(std::string_view path);

// The paths of the files that work_names.h names; "" if one would be too long.
std::string bucketDir(uint64_t ino);
std::string tempLocation(uint64_t ino);  // where an object waits that was moved aside
std::string cloneDeleteLocation(uint64_t ino);
std::string destinationFile(uint64_t ino);  // holds the path at which the object must end up
std::string newParentFile(uint64_t ino);
std::string filesetLocation(uint64_t id);     // where a nested fileset waits
std::string filesetDestination(uint64_t id);  // holds the path at which it must end up
std::string dirSet(uint64_t ino, bool deleted);
std::string dirSetList(uint64_t ino, bool deleted, int depth);
std::string dirSetMoveList(uint64_t ino, bool deleted, int depth);
std::string cloneList(int depth);
std::string cloneDeleteList(int depth);
std::string checkpointFile(int32_t caller_pid, const std::string &host, int32_t pid);

// ---- the directory

// Opens the work directory once and checks that it belongs to this run: it is a directory and no
// symbolic link, the effective user owns it, nobody else may write to it, and its inode is the one that
// the master exported. Otherwise fails with EPERM, after a message. rc of a failure is the errno.
//
// Every call below does this first for a path in the work directory, and resolves the path beneath it
// without following links. Other absolute paths, such as a list or batch that a user names, are taken
// as they are; a file that is read there must belong to the effective user, and nobody else may have
// the right to write it.
Result openWorkDirectory();

// Returns its descriptor, -1 before openWorkDirectory.
int workDirectoryDescriptor();

// Drops the identity in the environment, which belongs to another run. The master calls this before it
// makes a work directory.
void forgetInheritedDirectory();

// Puts the identity of the work directory into the environment, so that child processes accept no
// other.
void exportWorkDirectory();

// Closes the descriptor, for example of a work directory that has been removed.
void closeWorkDirectory();

// Returns true if inode `ino` of the fileset was created after the work directory.
bool youngerThanWorkDirectory(uint64_t ino);

// ---- files in it. They act like the system calls of the same names, close on exec, and do not follow
// a link as last component. rc of a failure is the errno.
Result openWorkFile(const std::string &path, int flags, UniqueFd *fd, mode_t mode = 0600);
Result statWorkFile(const std::string &path, struct stat *st);
Result unlinkWorkFile(const std::string &path);
Result renameWorkFile(const std::string &from, const std::string &to);

// Creates a directory in the work directory with kWorkDirMode. It is no failure if the directory
// exists.
Result makeWorkDirectory(const std::string &path);

struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;
// Opens the work directory, or a directory in it, for listing.
Result openWorkList(const std::string &path, Dir *dir);

// Reads the next entry other than "." and ".."; null at the end. rc of a failure is the errno.
Result nextEntry(const Dir &dir, const dirent **entry);
