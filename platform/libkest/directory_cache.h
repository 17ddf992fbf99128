// Caches the directories that path calls opened last.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "filesystem/file_system.h"

namespace kest {

// If somebody renames or replaces a directory after it was cached, the cache still holds the original
// one. That is safe: it was reached beneath the root without a symbolic link, it cannot have left the
// subvolume, and a step in it checks the inode that the caller names. The same can happen between
// resolution and step of a single call.
class DirectoryCache {
 public:
  // Returns NULL if the directory is not cached. `path` is the text of the directory's path.
  std::shared_ptr<Directory> find(std::string_view path);
  void keep(std::string_view path, std::shared_ptr<Directory> dir);
  // Drops directories at or below `path`, because that name is about to lead to something else.
  void drop(std::string_view path);
  void clear() { entries_.clear(); }

 private:
  struct Entry {
    std::string path;
    std::shared_ptr<Directory> dir;
  };
  std::vector<Entry> entries_;  // the last one was used last
};

}  // namespace kest
