// Resolves paths beneath a directory that is held open.
#pragma once

#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace kest {

// Opens the directory `path` with O_PATH. `path` is relative and of any length; "" is the directory
// `from` itself. No symbolic link, ".." or mount can lead out of `from`: each is refused (ELOOP,
// EXDEV). With `from` AT_FDCWD the kernel resolves the path as usual. 0 or -errno.
int openBeneath(int from, std::string_view path, UniqueFd *dir);

// Opens a directory for reading by a path without symbolic links. 0 or -errno.
int openWithoutLinks(const std::string &path, UniqueFd *dir);

}  // namespace kest
