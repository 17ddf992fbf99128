// Extended attributes of the object of any descriptor, O_PATH included.
#pragma once

#include <string>
#include <vector>

namespace kest {

// Lists all names in no particular order; none if the file system has no attributes. 0 or -errno;
// -E2BIG: they take more than 64 KiB.
int listXattrs(int fd, std::vector<std::string> *names);

// Reads the whole value. 0 or -errno; -ENODATA: no such attribute; -EOPNOTSUPP: not supported here.
int readXattr(int fd, const char *name, std::string *value);

int writeXattr(int fd, const char *name, const std::string &value);  // 0 or -errno
int removeXattr(int fd, const char *name);  // 0, also if it is absent; or -errno

}  // namespace kest
