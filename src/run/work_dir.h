// The work directory and the files in it. Users may be allowed to write to the directory that it lies
// in and could exchange it for one of theirs, so everything in it is reached through a descriptor of
// it.
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

constexpr int kWorkDirMode = 0x755;  // hexadecimal, as the lists of older runs have it

// ---- paths

// Path of `name` (formats/work_names.h) in the work directory; empty, with path2long set, when it would
// be too long. What is a whole path already is returned as it is.
std::string workPath(std::string_view name);

// The path of a name that workPath gave, relative to the work directory.
std::string_view nameInWorkDir(std::string_view path);

// True when the path lies below the work directory.
bool inWorkDir(std::string_view path);

// Whole paths, empty where they would be too long. The constants of work_names.h are for workPath.
std::string bucketDir(uint64_t ino);
std::string tempLocation(uint64_t ino);  // where a moved-away object waits
std::string cloneDeleteLocation(uint64_t ino);
std::string destinationFile(uint64_t ino);  // tells where it must end up
std::string newParentFile(uint64_t ino);
std::string filesetLocation(uint64_t id);     // where a nested fileset waits
std::string filesetDestination(uint64_t id);  // tells where it must end up
std::string dirSet(uint64_t ino, bool deleted);
std::string dirSetList(uint64_t ino, bool deleted, int depth);
std::string dirSetMoveList(uint64_t ino, bool deleted, int depth);
std::string cloneList(int depth);
std::string cloneDeleteList(int depth);
std::string checkpointFile(int32_t caller_pid, const std::string &host, int32_t pid);

// ---- the directory

// Opens the work directory, once, and checks that it is the run's: a directory, not a link to one; the
// effective user's, writable by nobody else; and the inode that the master told its workers of. EPERM
// where it is none of these, after a message. Every call below does it first, for paths in the work
// directory, and resolves them beneath it, following no link. Other whole paths (a list or batch named
// by hand) are taken as they are; a file that is read must be the effective user's, and writable by
// nobody else. rc of a failure is the errno.
Result openWorkDirectory();

// Its descriptor; -1 before it was opened.
int workDirectoryDescriptor();

// For the master, before it makes one: ignores the identity that the environment gives, which is
// another run's.
void forgetInheritedDirectory();

// Makes the directory known to the processes that this one starts, as the only one that is the run's.
void exportWorkDirectory();

// Forgets it, for a work directory that has been removed.
void closeWorkDirectory();

// True for an inode of the fileset that was made after the work directory.
bool youngerThanWorkDirectory(uint64_t ino);

// "<device>:<inode>" of a directory, as child processes learn it.
std::string directoryIdentity(const struct stat &st);

// ---- files in it: as the system calls of these names; close-on-exec, the last component is not
// followed. rc of a failure is the errno.
Result openWorkFile(const std::string &path, int flags, UniqueFd *fd, mode_t mode = 0600);
Result statWorkFile(const std::string &path, struct stat *st);
Result unlinkWorkFile(const std::string &path);
Result renameWorkFile(const std::string &from, const std::string &to);

// Creates a directory of the work directory with kWorkDirMode; one that exists counts as created.
Result makeWorkDirectory(const std::string &path);

struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;
// Opens a directory for listing: the work directory itself, or one in it.
Result openWorkList(const std::string &path, Dir *dir);

// The next entry but "." and ".."; null at the end. rc of a failure is the errno.
Result nextEntry(const Dir &dir, const dirent **entry);
