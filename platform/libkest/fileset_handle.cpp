#include "libkest/fileset_handle.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "btrfs/mounts.h"
#include "btrfs/subvolume.h"
#include "libkest/c_call.h"
#include "libkest/kinship.h"

namespace kest {

namespace {

constexpr size_t kFewNames = 12;

thread_local std::string error_text;

// Fails with `error` and the sentence that explains it.
int fail(int error, std::string text) {
  setErrorText(std::move(text));
  return -error;
}

std::string trimSlashes(const char *path) {
  std::string text(path);
  while (!text.empty() && text.front() == '/') text.erase(0, 1);
  while (!text.empty() && text.back() == '/') text.pop_back();
  return text;
}

std::string lastComponent(const std::string &path) {
  return path.substr(path.rfind('/') + 1);
}

std::string display(const std::string &top_path) {
  return top_path.empty() ? "/" : top_path;
}

// "; there are a, b, c" where the names are few enough to be of help.
std::string listNames(const SubvolumeTable &table, const std::vector<const Subvolume *> &these) {
  if (these.empty() || these.size() > kFewNames) return "";
  std::string text;
  for (const Subvolume *one : these) {
    std::string path;
    if (table.pathOf(one->id, &path) < 0) continue;
    text += (text.empty() ? "; there are " : ", ") + display(path);
  }
  return text;
}

// The subvolume whose path below the top is `path`.
const Subvolume *findByPath(const SubvolumeTable &table, const std::string &path) {
  if (path.empty()) return table.find(kTopLevel);
  std::string name = lastComponent(path), found;
  for (const Subvolume &one : table.all())
    if (!one.deleted && one.name == name && table.pathOf(one.id, &found) == 0 && found == path)
      return &one;
  return nullptr;
}

int findFileset(const SubvolumeTable &table, const char *name, const std::string &device,
                const Subvolume **fileset) {
  *fileset = name[0] == 0 ? nullptr : findByPath(table, trimSlashes(name));
  if (*fileset != nullptr) return 0;
  std::vector<const Subvolume *> filesets;
  for (const Subvolume &one : table.all())
    if (!one.deleted && one.parent_uuid == Uuid{}) filesets.push_back(&one);
  return fail(ENOENT, "no fileset " + std::string(name) + " in the file system of " + device +
                          listNames(table, filesets));
}

int findSnapshot(const SubvolumeTable &table, const char *name, const Subvolume &fileset,
                 const std::string &fileset_name, const Subvolume **snapshot) {
  std::string path = trimSlashes(name), found;
  // A name with a slash is a path, any other one the last component of a path.
  bool by_path = strchr(name, '/') != nullptr;
  std::vector<const Subvolume *> matches, snapshots;
  bool unrelated = false;
  for (const Subvolume &one : table.all()) {
    if (one.deleted || one.id == fileset.id) continue;
    bool kin = table.related(fileset.id, one.id, nullptr);
    if (kin) snapshots.push_back(&one);
    if (path.empty() || one.name != lastComponent(path)) continue;
    if (by_path && (table.pathOf(one.id, &found) < 0 || found != path)) continue;
    if (kin)
      matches.push_back(&one);
    else
      unrelated = true;
  }
  if (matches.size() > 1) {
    for (const Subvolume *one : matches) {
      if (table.pathOf(one->id, &found) == 0 && found == path) {
        *snapshot = one;
        return 0;
      }
    }
    return fail(EINVAL, "more than one snapshot of fileset " + fileset_name + " is named " + name +
                            ", use its path below the top of the file system" +
                            listNames(table, matches));
  }
  if (matches.size() == 1) {
    *snapshot = matches.front();
    return 0;
  }
  if (unrelated || path == trimSlashes(fileset_name.c_str()))
    return fail(EINVAL, std::string(name) + " is not a snapshot of fileset " + fileset_name);
  return fail(ENOENT,
              "fileset " + fileset_name + " has no snapshot " + name + listNames(table, snapshots));
}

int openHandle(const char *device, const char *fileset_name, const char *snapshot_name,
               kest_fssnap_handle *handle) {
  if (device == nullptr || fileset_name == nullptr) return -EINVAL;
  MountedFileSystem fs;
  int rc = findFileSystem(device, &fs);
  if (rc == -ENODEV) return fail(ENODEV, std::string(device) + " is no mounted btrfs file system");
  if (rc < 0) return fail(-rc, std::string(device) + ": " + strerror(-rc));
  SubvolumeTable table;
  rc = table.load(fs.fd.get());
  if (rc < 0)
    return fail(-rc, "cannot read the subvolumes of " + std::string(device) + ": " + strerror(-rc));

  const Subvolume *fileset, *target;
  rc = findFileset(table, fileset_name, device, &fileset);
  if (rc < 0) return rc;
  target = fileset;
  if (snapshot_name != nullptr) {
    std::string path;
    rc = table.pathOf(fileset->id, &path);
    if (rc < 0) return rc;
    rc = findSnapshot(table, snapshot_name, *fileset, display(path), &target);
    if (rc < 0) return rc;
  }
  rc = table.pathOf(target->id, &handle->top_path);
  if (rc < 0) return rc;
  handle->subvol_id = target->id;
  handle->fileset_id = fileset->id;
  handle->fsid = fs.fsid;
  int fd = openSubvolume(fs, target->id, handle->top_path, &handle->path);
  if (fd == -ENXIO)
    return fail(
        ENXIO,
        "no mount shows subvolume " + display(handle->top_path) + " of the file system of " + device +
            ": mount it, or one that it stands in, with -o subvolid=" + std::to_string(target->id));
  if (fd < 0) return fd;
  handle->root.reset(fd);
  struct stat root;
  if (fstat(fd, &root) < 0) return -errno;
  handle->device = root.st_dev;
  if (handle->path.empty()) handle->path = "/";
  if (target != fileset) {
    uint64_t line = 0;
    table.related(fileset->id, target->id, &line);
    rememberSnapshot(*handle, target->id, line);
  }
  return 0;
}

}  // namespace

void setErrorText(std::string text) {
  error_text = std::move(text);
}

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
  return error_text.empty() ? strerror(errno) : error_text.c_str();
}

int kest_get_fssnapid_from_fssnaphandle(const kest_fssnap_handle_t *handle, kest_snapid_t *id) {
  if (handle == nullptr || id == nullptr) {
    errno = EINVAL;
    return -1;
  }
  *id = handle->subvol_id;
  return 0;
}

const char *kest_get_pathname_from_fssnaphandle(const kest_fssnap_handle_t *handle) {
  if (handle != nullptr) return handle->path.c_str();
  errno = EINVAL;
  return nullptr;
}

int kest_is_writable(const kest_fssnap_handle_t *handle) {
  return cCall([&] {
    if (handle == nullptr) return -EINVAL;
    struct statvfs figures;
    if (fstatvfs(handle->root.get(), &figures) < 0) return -errno;
    if ((figures.f_flag & ST_RDONLY) != 0) return 0;
    int read_only = isReadOnly(handle->root.get());
    return read_only < 0 ? read_only : !read_only;
  });
}

}  // extern "C"
