#include "libkest/path_resolution.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <sys/stat.h>

#include "detect/file_systems.h"

namespace kest {
namespace {

// The directory at which the resolution of a path starts, and the remaining path.
struct Start {
  const Directory *dir = nullptr;  // NULL: the tree's root
  std::string_view rest;
};

// Removes the directory `dir` from the start of `path`. Returns false if `path` does not lie below it.
bool stripDirectory(std::string_view path, std::string_view dir, std::string_view *rest) {
  if (!path.starts_with(dir)) return false;
  *rest = path.substr(dir.size());
  if (!rest->empty() && rest->front() != '/' && !dir.ends_with('/')) return false;
  rest->remove_prefix(std::min(rest->find_first_not_of('/'), rest->size()));
  return true;
}

// 0 or -EXDEV.
int startOf(const kest_fssnap_handle &handle, std::string_view path, Start *start) {
  if (handle.anchor != nullptr && stripDirectory(path, handle.anchor_path, &start->rest) &&
      !start->rest.empty()) {
    start->dir = handle.anchor.get();
    return 0;
  }
  return stripDirectory(path, handle.tree->path(), &start->rest) ? 0 : -EXDEV;
}

}  // namespace

int locate(kest_fssnap_handle *handle, const char *path, Place *place) {
  if (path == nullptr) return -EINVAL;
  if (*path == '\0') return -ENOENT;
  Start start{nullptr, path};
  if (handle != nullptr) {
    if (int rc = startOf(*handle, path, &start); rc != 0) return rc;
  }
  const std::string_view rest = start.rest;
  const size_t end = rest.find_last_not_of('/') + 1;
  const size_t slash = end == 0 ? std::string_view::npos : rest.rfind('/', end - 1);
  const size_t leaf = slash == std::string_view::npos ? 0 : slash + 1;
  // The start directory itself has no last component, so the call works on ".".
  place->leaf = end == 0 ? "." : std::string(rest.substr(leaf));
  std::unique_ptr<Directory> opened;
  if (handle == nullptr) {
    const int rc = openDirectory(rest.substr(0, end == 0 ? 1 : leaf), &opened);
    place->dir = std::move(opened);
    return rc;
  }
  if (rest.substr(leaf, end - leaf) == "..") return -EXDEV;
  const std::string_view directory(path, static_cast<size_t>(rest.data() - path) + leaf);
  place->dir = handle->directories.find(directory);
  place->kept = place->dir != nullptr;
  if (place->kept) return 0;
  if (int rc = handle->tree->openDirectory(start.dir, rest.substr(0, leaf), &opened); rc != 0)
    return rc;
  place->dir = std::move(opened);
  handle->directories.keep(directory, place->dir);
  return 0;
}

bool forgetIfRemoved(kest_fssnap_handle *handle, const char *path, Place *place) {
  struct stat st;
  if (!place->kept || place->dir->stat(".", &st) != 0 || st.st_nlink != 0) return false;
  // The leaf is the last part of the path.
  const std::string_view text(path);
  handle->directories.drop(text.substr(0, text.size() - place->leaf.size()));
  return true;
}

int expectInode(const Place &place, uint64_t ino) {
  if (ino == 0) return 0;
  struct stat st;
  if (int rc = place.dir->stat(place.leaf, &st); rc != 0) return rc;
  return st.st_ino == ino ? 0 : -ESTALE;
}

bool flagsForbid(const Suspect &suspect) {
  Protection protection;
  const std::string name = suspect.name != nullptr ? *suspect.name : "";
  return suspect.dir->readProtection(name, &protection) == 0 &&
         (protection.immutable || (protection.append_only && suspect.append_only_refuses));
}

int outcome(int rc, std::initializer_list<Suspect> suspects) {
  if (rc != -EPERM) return rc;
  return std::any_of(suspects.begin(), suspects.end(), flagsForbid) ? -EROFS : -EPERM;
}

int outcome(int rc, Inode &inode) {
  if (rc != -EPERM) return rc;
  Protection protection;
  return inode.readProtection(&protection) == 0 && protection.any() ? -EROFS : -EPERM;
}

}  // namespace kest
