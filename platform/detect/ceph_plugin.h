// Loads the library that knows CephFS when a path first needs it. Machines without CephFS thus do not
// need the packages that this library depends on.
#pragma once

#include <memory>
#include <string>

#include "filesystem/file_system.h"

namespace kest {

// Returns true if `path` lies on a CephFS that the kernel or FUSE mounted; false also if it cannot be
// examined.
bool isOnCephFs(const std::string &path);

// Does the same as openFileSystem. -ENODEV with errorText(): the library cannot be loaded.
int openWithCephPlugin(const std::string &device, std::unique_ptr<FileSystem> *fs);

}  // namespace kest
