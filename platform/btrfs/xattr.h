// Extended attributes of the object behind any descriptor, O_PATH included.
#pragma once

#include <string>
#include <vector>

namespace kest {

// All names, in no order. 0 or -errno: -E2BIG when they take more than 64 KiB. None where the file
// system has no attributes.
int listXattrs(int fd, std::vector<std::string> *names);

// The whole value. 0 or -errno: -ENODATA absent, -EOPNOTSUPP no such attributes here.
int readXattr(int fd, const char *name, std::string *value);

int writeXattr(int fd, const char *name, const std::string &value);  // 0 or -errno
int removeXattr(int fd, const char *name);                           // 0, also when absent; -errno

}  // namespace kest
