#include "object/xattr_restore.h"

#include <cerrno>
#include <new>
#include <vector>

#include "object/clear_flags.h"
#include "object/identity.h"
#include "object/object_stat.h"
#include "run/settings.h"
#include "run/trace_log.h"

namespace {

constexpr int kFirstBlob = 10240;  // bytes
constexpr int kSelectAll = 32, kSelectEncrypted = 64;

int attributeFlags() {
  return settings.encryptEA ? kSelectAll | kSelectEncrypted : kSelectAll;
}

// Reads the snapshot's attributes; 0, or the code of the step and errno.
int readBlob(uint64_t ino, kest_ifile_t *snapInode, std::vector<char> *blob) {
  const int flags = attributeFlags();
  blob->resize(kFirstBlob);
  for (bool grown = false;; grown = true) {
    traceLog("restoreXAttr: ino %lld before kest_igetattrsx() eaFlag %d\n", static_cast<long long>(ino),
             flags);
    int size = 0;
    const int capacity = static_cast<int>(blob->size());
    if (kest_igetattrsx(snapInode, flags, blob->data(), capacity, &size) == 0) {
      traceLog("restoreXAttr: ino %lld attrSize %d\n", static_cast<long long>(ino), size);
      blob->resize(static_cast<size_t>(size));
      return 0;
    }
    if (errno != ENOSPC || grown || size <= capacity) return 6;
    try {
      blob->resize(static_cast<size_t>(size));
    } catch (const std::bad_alloc &) {
      errno = ENOMEM;
      return 5;
    }
  }
}

int putBlob(kest_ifile_t *target, const std::vector<char> &blob, const std::string *path) {
  const int flags = attributeFlags();
  const auto put = [&] {
    const void *data = blob.empty() ? nullptr : blob.data();
    traceLog("restoreXAttr: eaFlag %d, bufP %p\n", flags, data);
    return kest_iputattrsx(target, flags, data, nullptr);
  };
  if (path == nullptr) return put();
  return retryClearing(*path, "", put);
}

// Gives `target` the attributes of the snapshot's inode `ino`. `path`: where flags in the way are
// cleared, or null. The code of the failing step with errno, or 0.
int bring(uint64_t ino, kest_ifile_t *snapInode, bool has_any, kest_ifile_t *target,
          const std::string *path) {
  std::vector<char> blob;
  if (has_any) {
    if (int code = readBlob(ino, snapInode, &blob); code != 0) return code;
    if (blob.empty()) {
      traceLog("restoreXAttr: skip migrated file in path %s, ino %lld\n",
               path != nullptr ? path->c_str() : "NULL", static_cast<long long>(ino));
      return 0;
    }
  }
  return putBlob(target, blob, path) == 0 ? 0 : 7;
}

// `target` null: the object at `path`, or the active inode of the same number, is opened.
int restore(uint64_t ino, kest_ifile_t *snapInode, kest_ifile_t *target, const std::string *path) {
  kest_iattr64_t attr;
  if (kest_istat(snapInode, &attr) != 0) return 1;
  const bool has_any = attr.ia_xattr != 0;
  if (!has_any) {
    traceLog("restoreXAttr: ino %lld. No EA to restore.\n", static_cast<long long>(ino));
  }
  if (target != nullptr) return bring(ino, snapInode, has_any, target, path);
  uint64_t target_ino = ino;
  if (path != nullptr) {
    struct stat st;
    if (statPath(*path, &st) != 0) return 3;
    if (!mayBecome(st, ino, attr)) {
      errno = ESTALE;
      return 3;
    }
    target_ino = st.st_ino;
  }
  Inode opened = openInode(handles.activeFsP, target_ino);
  return opened ? bring(ino, snapInode, has_any, opened.get(), path) : 4;
}

int restoreAndTrace(uint64_t ino, kest_ifile_t *snapInode, kest_ifile_t *target,
                    const std::string *path) {
  traceLog("restoreXAttr: ino %lld\n", static_cast<long long>(ino));
  const int code = restore(ino, snapInode, target, path);
  if (code == 0) return 0;
  const int err = errno != 0 ? errno : EIO;
  traceLog("restoreXAttr: ino %lld, path %s, rc %d, code %d, err %d\n", static_cast<long long>(ino),
           path != nullptr ? path->c_str() : "NULL", err, code, err);
  errno = err;
  return err;
}

}  // namespace

int restoreXAttr(uint64_t ino, kest_ifile_t *snapInode, const std::string *path) {
  return restoreAndTrace(ino, snapInode, nullptr, path);
}

int restoreXAttrOf(kest_ifile_t *snapInode, kest_ifile_t *active, const std::string &path) {
  return restoreAndTrace(snapInode->if_inode, snapInode, active, &path);
}
