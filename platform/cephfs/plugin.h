// What the library that knows CephFS gives to the one that loads it.
#pragma once

#include <memory>
#include <string>

#include "filesystem/file_system.h"

namespace kest {

// The name under which openCephPlugin is found, and its version: both libraries come from one build.
inline constexpr char kCephPluginEntry[] = "kestOpenCephFs2";
// See openCephFs. `say` takes over every sentence for errorText().
using CephPluginOpen = int (*)(const std::string &device, void (*say)(std::string text),
                               std::unique_ptr<FileSystem> *fs);

}  // namespace kest
