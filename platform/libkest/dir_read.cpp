#include "libkest/dir_read.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "libkest/c_call.h"
#include "libkest/entry_check.h"
#include "libkest/entry_diff.h"
#include "libkest/inode_scan.h"

namespace kest {

namespace {

constexpr size_t kBatch = 256 * 1024;

void setName(kest_direntx64_t *record, std::string_view name) {
  size_t size = std::min(name.size(), sizeof record->d_name - 1);
  memcpy(record->d_name, name.data(), size);
  record->d_name[size] = 0;
}

bool isDots(const char *name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Calls visit(record) with names, numbers and types as the kernel lists them. 0 or -errno.
template <typename Visit>
int readRaw(int fd, Visit visit) {
  auto buffer = std::make_unique_for_overwrite<char[]>(kBatch);
  if (lseek(fd, 0, SEEK_SET) < 0) return -errno;
  for (;;) {
    ssize_t n = getdents64(fd, buffer.get(), kBatch);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -errno;
    if (n == 0) return 0;
    for (ssize_t at = 0; at < n;) {
      const auto *raw = reinterpret_cast<const dirent64 *>(buffer.get() + at);
      kest_direntx64_t record;
      record.d_ino = raw->d_ino;
      record.d_gen = 0;
      record.d_type = raw->d_type;
      record.d_pad = 0;
      record.d_flags = 0;
      setName(&record, raw->d_name);
      int rc = visit(record);
      if (rc < 0) return rc;
      at += raw->d_reclen;
    }
  }
}

bool isDirectory(const kest_ifile_t *dir) {
  return dir != nullptr && dir->if_kind == KEST_IFILE_KIND && S_ISDIR(dir->if_mode);
}

}  // namespace

kest_direntx64_t toRecord(const DirEntryItem &entry) {
  kest_direntx64_t record{};
  record.d_ino = entry.target;
  record.d_type = entry.type;
  record.d_flags = entry.subvolume ? KEST_DF_JUNCTION : 0;
  setName(&record, entry.name);
  return record;
}

int listDirectory(OpenInode *file, const HiddenEntries &hidden, bool dots, EntryList *entries) {
  int fd = file->readFd();
  if (fd < 0) return fd;
  EntryCheck check(*file);
  entries->clear();
  return readRaw(fd, [&](kest_direntx64_t &record) {
    if (isDots(record.d_name)) {
      if (record.d_name[1] == 0) record.d_gen = file->if_generation;
      if (dots) entries->add(record);
      return 0;
    }
    if (hidden.hidesName(file->if_inode, record.d_name)) return 0;
    if (record.d_type == DT_DIR) {
      int there = check.resolve(&record);
      if (there <= 0) return there;
    }
    if ((record.d_flags & KEST_DF_JUNCTION) != 0) {
      int hides = hidden.hidesSubvolume(file->if_inode, record.d_name, record.d_ino);
      if (hides != 0) return std::min(hides, 0);
    }
    entries->add(record);
    return 0;
  });
}

}  // namespace kest

using namespace kest;

extern "C" {

int kest_ireaddir64(kest_ifile_t *dir, const kest_direntx64_t **entry) {
  return cCall([&] {
    if (entry == nullptr) return -EINVAL;
    *entry = nullptr;
    if (!isDirectory(dir)) return -ENOTDIR;
    OpenInode *file = openInode(dir);
    if (!file->listed) {
      const kest_fssnap_handle &handle = *file->handle;
      uint64_t snapshot = handle.isSnapshot() ? handle.subvol_id : currentSnapshot(handle);
      int rc = listDirectory(file, HiddenEntries(handle, snapshot), true, &file->entries);
      if (rc < 0) return rc;
      file->listed = true;
    }
    *entry = file->entries.next();
    return 0;
  });
}

int kest_ireaddirx64(kest_ifile_t *dir, kest_iscan_t *scan, const kest_direntx64_t **entry) {
  return cCall([&] {
    if (entry == nullptr) return -EINVAL;
    *entry = nullptr;
    if (!isDirectory(dir)) return -ENOTDIR;
    if (scan == nullptr || !scan->difference) return -EINVAL;
    OpenInode *file = openInode(dir);
    if (!file->compared) {
      const TreeDiff *diff;
      int rc = scan->diff(&diff);
      if (rc == 0) rc = listChangedEntries(file, *diff, scan->snapshot_id);
      if (rc < 0) return rc;
      file->compared = true;
    }
    *entry = file->changed.next();
    return 0;
  });
}

}  // extern "C"
