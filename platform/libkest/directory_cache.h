// The directories that path calls opened last.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "filesystem/file_system.h"

namespace kest {

// A directory that somebody renames, or replaces, after it was opened stays the one that was resolved.
// That is safe: it was reached beneath the root through no link, it cannot have left the subvolume, and
// what a step does in it is checked against the inode that the step names. It is no more than what can
// happen between the resolution and the step of a single call.
class DirectoryCache {
 public:
  // NULL: not kept. `path`: the text of the path of the directory.
  std::shared_ptr<Directory> find(std::string_view path);
  void keep(std::string_view path, std::shared_ptr<Directory> dir);
  // Drops what is kept at or below `path`: a name there is about to mean something else.
  void drop(std::string_view path);
  void clear() { entries_.clear(); }

 private:
  struct Entry {
    std::string path;
    std::shared_ptr<Directory> dir;
  };
  std::vector<Entry> entries_;  // the one that was used last is the last
};

}  // namespace kest
