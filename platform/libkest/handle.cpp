// Handles of filesets and snapshots, and queries about these.
#include "libkest/handle.h"

#include <sys/statfs.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/local_nodes.h"
#include "detect/file_systems.h"
#include "filesystem/error_text.h"
#include "libkest/c_call.h"

namespace kest {

namespace {

constexpr uint64_t kTransferUnit = 262144;

int openHandle(const char *device, const char *fileset, const char *snapshot,
               kest_fssnap_handle *handle) {
  if (device == nullptr || fileset == nullptr) return -EINVAL;
  std::unique_ptr<FileSystem> fs;
  const int rc = openFileSystem(device, &fs);
  if (rc < 0 && !errorText().empty()) return rc;
  if (rc == -ENODEV)
    return failWith(ENODEV, std::string(device) + " is no mounted file system of a known kind");
  if (rc < 0) return failWith(-rc, std::string(device) + ": " + strerror(-rc));
  return fs->openTree(fileset, snapshot, &handle->tree);
}

}  // namespace

}  // namespace kest

using namespace kest;

extern "C" {

kest_fssnap_handle_t *kest_get_fset_snaphandle_by_name(const char *device, const char *fileset,
                                                       const char *snapshot) {
  kest_fssnap_handle *opened = nullptr;
  cCall([&] {
    setErrorText("");
    auto handle = std::make_unique<kest_fssnap_handle>();
    int rc = openHandle(device, fileset, snapshot, handle.get());
    if (rc == 0) opened = handle.release();
    return rc;
  });
  return opened;
}

void kest_free_fssnaphandle(kest_fssnap_handle_t *handle) {
  int saved = errno;
  delete handle;
  errno = saved;
}

const char *kest_error_text(void) {
  return errorText().empty() ? strerror(errno) : errorText().c_str();
}

int kest_get_fssnapid_from_fssnaphandle(const kest_fssnap_handle_t *handle, kest_snapid_t *id) {
  if (handle == nullptr || id == nullptr) {
    errno = EINVAL;
    return -1;
  }
  *id = handle->tree->id();
  return 0;
}

const char *kest_get_pathname_from_fssnaphandle(const kest_fssnap_handle_t *handle) {
  if (handle != nullptr) return handle->tree->path().c_str();
  errno = EINVAL;
  return nullptr;
}

int kest_is_writable(const kest_fssnap_handle_t *handle) {
  return cCall([&] { return handle == nullptr ? -EINVAL : handle->tree->isWritable(); });
}

int kest_statfs64(const char *path, kest_statfs64_t *buf) {
  return cCall([&] {
    if (path == nullptr || buf == nullptr) return -EINVAL;
    struct statfs fs;
    if (statfs(path, &fs) != 0) return -errno;
    // Convert to the reported unit, so that blocks times unit is bytes.
    auto units = [&](uint64_t blocks) {
      return blocks * static_cast<uint64_t>(fs.f_bsize) / kTransferUnit;
    };
    *buf = {kTransferUnit,      units(fs.f_blocks), units(fs.f_bfree),
            units(fs.f_bavail), fs.f_files,         fs.f_ffree};
    return 0;
  });
}

int64_t kest_metadata_room(const kest_fssnap_handle_t *handle) {
  return cCall([&] { return handle == nullptr ? int64_t{-EINVAL} : handle->tree->metadataRoom(); });
}

int kest_is_quota_file(const kest_fssnap_handle_t *, const char *, const char *) {
  return 0;
}

int kest_file_survives(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                       const char *path) {
  return cCall([&] {
    if (active == nullptr || snap == nullptr || path == nullptr) return -EINVAL;
    return active->tree->fileSurvives(*snap->tree, path);
  });
}

int kest_other_node(const kest_fssnap_handle_t *active, const char *nodes, char *node, size_t size) {
  return cCall([&] {
    if (active == nullptr || nodes == nullptr || node == nullptr || size == 0) return -EINVAL;
    std::string other;
    if (active->tree->spansNodes() || nodesAreLocal(nodes, &other)) return 0;
    node[other.copy(node, size - 1)] = '\0';
    return 1;
  });
}

int kest_spans_nodes(const kest_fssnap_handle_t *active) {
  return cCall([&] { return active == nullptr ? -EINVAL : int{active->tree->spansNodes()}; });
}

int kest_names_outside(const kest_fssnap_handle_t *active) {
  return cCall([&] { return active == nullptr ? -EINVAL : int{active->tree->hasNamesOutside()}; });
}

int kest_younger(kest_fssnap_handle_t *active, uint64_t ino, uint64_t than) {
  return cCall([=] { return active == nullptr ? -EINVAL : active->tree->isYounger(ino, than); });
}

int kest_settle(kest_fssnap_handle_t *active) {
  return cCall([=] { return active == nullptr ? -EINVAL : active->tree->settle(); });
}

int kest_lock(kest_fssnap_handle_t *active) {
  return cCall([=] { return active == nullptr ? -EINVAL : active->tree->lock(); });
}

int kest_remove_lock(kest_fssnap_handle_t *active) {
  return cCall([=] { return active == nullptr ? -EINVAL : active->tree->removeLock(); });
}

int kest_inode_names(kest_fssnap_handle_t *handle, uint64_t ino,
                     int (*each)(void *arg, const char *path), void *arg) {
  bool stopped = false;
  int rc = cCall([&] {
    if (handle == nullptr || each == nullptr) return -EINVAL;
    InodeNames names;
    int found = handle->tree->findNames(ino, &names);
    if (found < 0) return found;
    if (names.paths.empty()) return -ENOENT;
    stopped = std::any_of(names.paths.begin(), names.paths.end(),
                          [&](const std::string &path) { return each(arg, path.c_str()) != 0; });
    return 0;
  });
  return stopped ? -2 : rc;
}

}  // extern "C"
