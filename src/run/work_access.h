// Files of the work directory, by descriptor: users may be allowed to write to the directory that it
// lies in, and could exchange it for one of theirs.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <memory>
#include <string>

// Opens the work directory, once, and checks that it is the run's: a directory, not a link to one; the
// effective user's, writable by nobody else; and the inode that the master told its workers of. 0 or an
// errno: EPERM where it is none of these, after a message. Every call below does it first, for paths in
// the work directory, and resolves them beneath it, following no link. Other whole paths (a list or
// batch named by hand) are taken as they are; a file that is read must be the effective user's, and no
// other's to write.
int openWorkDirectory();

// Its descriptor; -1 before it was opened.
int workDirectoryDescriptor();

// For the master, before it makes one: whatever the environment says is of another run.
void forgetToldDirectory();

// Makes the directory known to the processes that this one starts, as the only one that is the run's.
void tellWorkDirectory();

// As the system calls of these names; close-on-exec, the last component is not followed.
int openWorkFile(const std::string &path, int flags, mode_t mode = 0600);
int statWorkFile(const std::string &path, struct stat *st);
int unlinkWorkFile(const std::string &path);
int renameWorkFile(const std::string &from, const std::string &to);
int makeWorkSubdirectory(const std::string &path, mode_t mode);

struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;
// Null and errno.
Dir openWorkList(const std::string &path);

// Forgets it, for a work directory that has gone.
void closeWorkDirectory();

// True for an object that cannot be older than the work directory: the file system gives every inode of
// the fileset a higher number than all before it.
bool youngerThanWorkDirectory(const struct stat &st);

// "<device>:<inode>" of a directory, as it is told to child processes.
std::string directoryIdentity(const struct stat &st);
