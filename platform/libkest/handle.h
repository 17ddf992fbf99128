// The object behind a kest_fssnap_handle_t.
#pragma once

#include <memory>
#include <string>

#include "filesystem/file_system.h"
#include "kest.h"
#include "libkest/directory_cache.h"

struct kest_fssnap_handle {
  std::unique_ptr<kest::Tree> tree;
  std::unique_ptr<kest::Directory> anchor;  // see kest_anchor
  std::string anchor_path;
  kest::DirectoryCache directories;
};
