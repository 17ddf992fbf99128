#include "libkest/dir_read.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "btrfs/file_handle.h"
#include "btrfs/subvolume.h"
#include "libkest/c_call.h"
#include "libkest/entry_diff.h"
#include "libkest/inode_scan.h"

namespace kest {

namespace {

constexpr size_t kBatch = 256 * 1024;
constexpr uint64_t kStub = 2;  // inode number of a subvolume's stub in a snapshot

void setName(kest_direntx64_t *record, std::string_view name) {
  size_t size = std::min(name.size(), sizeof record->d_name - 1);
  memcpy(record->d_name, name.data(), size);
  record->d_name[size] = 0;
}

bool isDots(const char *name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Names, numbers and types as the kernel lists them.
int readRaw(int fd, std::vector<kest_direntx64_t> *entries) {
  auto buffer = std::make_unique_for_overwrite<char[]>(kBatch);
  if (lseek(fd, 0, SEEK_SET) < 0) return -errno;
  for (;;) {
    ssize_t n = getdents64(fd, buffer.get(), kBatch);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -errno;
    if (n == 0) return 0;
    for (ssize_t at = 0; at < n;) {
      const auto *raw = reinterpret_cast<const dirent64 *>(buffer.get() + at);
      kest_direntx64_t &record = entries->emplace_back();
      record = {};
      record.d_ino = raw->d_ino;
      record.d_type = raw->d_type;
      setName(&record, raw->d_name);
      at += raw->d_reclen;
    }
  }
}

// Fills in generations, and marks nested subvolumes: the kernel lists them by their subvolume id, which
// may also be an inode number, but a handle tells what they are.
class EntryResolver {
 public:
  EntryResolver(const OpenInode &file, int fd) : file_(file), fd_(fd) {}

  int begin() { return addressOf(fd_, "", &self_); }

  // 1; 0 when the entry is gone by now; -errno.
  int resolve(kest_direntx64_t *record) {
    InodeAddress address;
    int rc = addressOf(fd_, record->d_name, &address);
    if (rc == -ENOENT) return 0;
    if (rc == -EXDEV || (rc == 0 && address.mount_id != self_.mount_id))
      return resolveBelowMount(record);
    if (rc < 0) return rc;
    if (address.subvol_id != self_.subvol_id || address.ino == kStub)
      record->d_flags |= KEST_DF_JUNCTION;
    else
      record->d_gen = address.generation;
    return 1;
  }

 private:
  // Something is mounted on the entry, and a lookup by name ends there.
  int resolveBelowMount(kest_direntx64_t *record) {
    if (!nested_known_) {
      int rc = listNested(fd_, self_.subvol_id, file_.if_inode, &nested_);
      if (rc < 0) return rc;
      nested_known_ = true;
    }
    for (const Subvolume &one : nested_) {
      if (one.name == record->d_name) {
        record->d_flags |= KEST_DF_JUNCTION;
        return 1;
      }
    }
    UniqueFd fd(openByInode(fd_, self_.subvol_id, record->d_ino, 0, O_PATH));
    if (!fd) return 1;
    InodeAddress address;
    if (addressOf(fd.get(), "", &address) == 0) record->d_gen = address.generation;
    return 1;
  }

  const OpenInode &file_;
  int fd_;
  InodeAddress self_;
  std::vector<Subvolume> nested_;
  bool nested_known_ = false;
};

int nextOf(std::vector<kest_direntx64_t> &entries, size_t *next, const kest_direntx64_t **entry) {
  *entry = *next < entries.size() ? &entries[(*next)++] : nullptr;
  return 0;
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

int listDirectory(OpenInode *file, const HiddenEntries &hidden,
                  std::vector<kest_direntx64_t> *entries) {
  int fd = file->readFd();
  if (fd < 0) return fd;
  std::vector<kest_direntx64_t> raw;
  int rc = readRaw(fd, &raw);
  if (rc < 0) return rc;
  EntryResolver resolver(*file, fd);
  rc = resolver.begin();
  if (rc < 0) return rc;
  entries->clear();
  entries->reserve(raw.size());
  for (kest_direntx64_t &record : raw) {
    if (!isDots(record.d_name)) {
      if (hidden.hidesName(file->if_inode, record.d_name)) continue;
      if (record.d_type == DT_DIR) {
        rc = resolver.resolve(&record);
        if (rc < 0) return rc;
        if (rc == 0) continue;
      }
      if ((record.d_flags & KEST_DF_JUNCTION) != 0) {
        rc = hidden.hidesSubvolume(file->if_inode, record.d_name, record.d_ino);
        if (rc < 0) return rc;
        if (rc > 0) continue;
      }
    } else if (record.d_name[1] == 0) {
      record.d_gen = file->if_generation;
    }
    entries->push_back(record);
  }
  return 0;
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
      int rc = listDirectory(file, HiddenEntries(handle, snapshot), &file->entries);
      if (rc < 0) return rc;
      file->listed = true;
    }
    return nextOf(file->entries, &file->next_entry, entry);
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
    return nextOf(file->changed, &file->next_changed, entry);
  });
}

}  // extern "C"
