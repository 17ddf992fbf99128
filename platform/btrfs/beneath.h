// Resolving a path beneath a directory that is held open.
#pragma once

#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace kest {

// Opens the directory `path` (relative, of any length, "" the directory `from` itself) with O_PATH.
// Neither a symbolic link nor ".." nor a mount leads out of `from`; each of them is refused on the way:
// ELOOP, EXDEV. With `from` AT_FDCWD the path is followed as usual. 0 or -errno.
int openBeneath(int from, std::string_view path, UniqueFd *dir);

// Opens a directory for reading, by any path of which no component is a symbolic link. 0 or -errno.
int openWithoutLinks(const std::string &path, UniqueFd *dir);

}  // namespace kest
