// lstat and open for paths of any length in fileset, work directory and snapshot.
#pragma once

#include <sys/stat.h>
#include <string>

// 0, or -1 and errno. The final component is not followed.
int statPath(const std::string &path, struct stat *st);

// O_PATH descriptor of the object; -1 and errno.
int openObject(const std::string &path);

// Target of the symbolic link at `path`, whole; 0, or -1 and errno (EINVAL: no link).
int readLinkTarget(const std::string &path, std::string *target);
