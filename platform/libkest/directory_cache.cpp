#include "libkest/directory_cache.h"

#include <algorithm>

namespace kest {

namespace {

constexpr size_t kMostDirectories = 16;

// Returns the path with single slashes and none at the end, so that two spellings of one path are
// equal.
std::string plain(std::string_view path) {
  std::string text;
  for (size_t at = 0; at < path.size();) {
    const size_t end = std::min(path.find('/', at), path.size());
    const std::string_view component = path.substr(at, end - at);
    if (!component.empty() && component != ".") text.append("/").append(component);
    at = end + 1;
  }
  return text;
}

bool hasDotDot(std::string_view path) {
  return path.find("/../") != std::string_view::npos || path.ends_with("/..");
}

}  // namespace

std::shared_ptr<Directory> DirectoryCache::find(std::string_view path) {
  const auto found = std::find_if(entries_.rbegin(), entries_.rend(),
                                  [&](const Entry &entry) { return entry.path == path; });
  if (found == entries_.rend()) return nullptr;
  std::rotate(found.base() - 1, found.base(), entries_.end());
  return entries_.back().dir;
}

void DirectoryCache::keep(std::string_view path, std::shared_ptr<Directory> dir) {
  // A path with ".." leads through directories that its text does not lie below, so drop() could miss
  // it.
  if (hasDotDot(path)) return;
  if (entries_.size() == kMostDirectories) entries_.erase(entries_.begin());
  entries_.push_back({std::string(path), std::move(dir)});
}

void DirectoryCache::drop(std::string_view path) {
  if (hasDotDot(path)) return clear();
  const std::string top = plain(path);
  std::erase_if(entries_, [&](const Entry &entry) {
    const std::string one = plain(entry.path);
    return one.starts_with(top) && (one.size() == top.size() || one[top.size()] == '/');
  });
}

}  // namespace kest
