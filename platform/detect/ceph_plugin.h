// Loads the library that knows CephFS, so that nobody else needs the packages that it stands on.
#pragma once

#include <memory>
#include <string>

#include "filesystem/file_system.h"

namespace kest {

// Whether `path` lies on a mounted CephFS, whoever mounted it. False also where it cannot be looked at.
bool isOnCephFs(const std::string &path);

// As openFileSystem. -ENODEV with errorText(): the library is not there.
int openWithCephPlugin(const std::string &device, std::unique_ptr<FileSystem> *fs);

}  // namespace kest
