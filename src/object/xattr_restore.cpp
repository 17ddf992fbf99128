#include "object/xattr_restore.h"

#include <cerrno>
#include <new>
#include <vector>

#include "object/flags.h"
#include "object/paths.h"
#include "run/settings.h"
#include "run/trace_log.h"

namespace {

constexpr int kFirstBlob = 10240;  // bytes
constexpr int kSelectAll = 32, kSelectEncrypted = 64;

// Step codes of the trace line.
enum XAttrStep : int {
  kStatCopy = 1,      // the snapshot's inode
  kLookAtObject = 3,  // also: the object is not the snapshot's inode (ESTALE)
  kOpenObject = 4,
  kGrowBuffer = 5,
  kReadAttributes = 6,
  kPutAttributes = 7,
};

int attributeFlags() {
  return settings.encryptEA ? kSelectAll | kSelectEncrypted : kSelectAll;
}

// Reads the snapshot's attributes and enlarges the buffer once if it is too small.
Result readBlob(uint64_t ino, kest_ifile_t *snapInode, std::vector<char> *blob) {
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
      return {};
    }
    if (errno != ENOSPC || grown || size <= capacity) return failedErrno(kReadAttributes);
    try {
      blob->resize(static_cast<size_t>(size));
    } catch (const std::bad_alloc &) {
      return failedErrno(kGrowBuffer, ENOMEM);
    }
  }
}

// The attributes of the snapshot's inode `ino` and the path of the object that gets them.
struct Attributes {
  uint64_t ino;
  kest_ifile_t *snapInode;
  const std::string &path;
  kest_iattr64_t attr;
};

Result putBlob(kest_ifile_t *target, const std::vector<char> &blob, const std::string &path) {
  const int flags = attributeFlags();
  return retryClearing(path, "", [&] {
    const void *data = blob.empty() ? nullptr : blob.data();
    traceLog("restoreXAttr: eaFlag %d, bufP %p\n", flags, data);
    return called(kest_iputattrsx(target, flags, data, nullptr));
  });
}

// Gives `target` the attributes. Removes those of `target` if the snapshot's inode has none.
Result copyAttributes(const Attributes &from, kest_ifile_t *target) {
  std::vector<char> blob;
  if (from.attr.ia_xattr != 0) {
    if (Result r = readBlob(from.ino, from.snapInode, &blob); !r) return r;
    if (blob.empty()) {
      traceLog("restoreXAttr: skip migrated file in path %s, ino %lld\n", from.path.c_str(),
               static_cast<long long>(from.ino));
      return {};
    }
  }
  return putBlob(target, blob, from.path).at(kPutAttributes);
}

void traceNone(const Attributes &from) {
  if (from.attr.ia_xattr != 0) return;
  traceLog("restoreXAttr: ino %lld. No EA to restore.\n", static_cast<long long>(from.ino));
}

// Restores the attributes of the object at the path, provided that it is the object they belong to.
Result restoreAtPath(Attributes &from) {
  if (kest_istat(from.snapInode, &from.attr) != 0) return failedErrno(kStatCopy);
  traceNone(from);
  struct stat st;
  if (Result r = statPath(from.path, &st); !r) return r.at(kLookAtObject);
  if (!isInodeOrReplacement(st, from.ino, from.attr)) return failedErrno(kLookAtObject, ESTALE);
  Inode target;
  if (Result r = openInode(handles.activeFsP, st.st_ino, &target); !r) return r.at(kOpenObject);
  return copyAttributes(from, target.get());
}

Result restoreOpen(const Attributes &from, OpenObject &active) {
  traceNone(from);
  if (from.attr.ia_xattr == 0 && !active.has(KEST_HAS_BLOB)) return {};
  return copyAttributes(from, active.get());
}

template <typename Body>
Result traced(const Attributes &from, const Body &body) {
  const long long number = static_cast<long long>(from.ino);
  traceLog("restoreXAttr: ino %lld\n", number);
  const Result r = body();
  if (!r) {
    traceLog("restoreXAttr: ino %lld, path %s, rc %d, code %d, err %d\n", number, from.path.c_str(),
             r.rc, r.code, r.err);
  }
  return r;
}

}  // namespace

Result restoreXAttr(uint64_t ino, kest_ifile_t *snapInode, const std::string &path) {
  Attributes from{ino, snapInode, path, {}};
  return traced(from, [&] { return restoreAtPath(from); });
}

Result restoreXAttrOf(const OpenObject &snap, OpenObject &active, const std::string &path) {
  const Attributes from{snap.get()->if_inode, snap.get(), path, snap.facts.attr};
  return traced(from, [&] { return restoreOpen(from, active); });
}
