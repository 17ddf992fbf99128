#include "object/clones.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "formats/new_parent_line.h"
#include "messages/messages.h"
#include "object/paths.h"
#include "object/places.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/snapshot_table.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

// ---- attributes of a file named by its path

namespace {

constexpr int32_t kGetExtendedAttribute = 6001;
constexpr int32_t kReasonAbsent = 27, kReasonTooSmall = 29;
constexpr std::string_view kAttribute = "kest.CLONE";
constexpr size_t kFirstBuffer = 1024;
constexpr int kMostAttempts = 5;  // the attribute can grow between two attempts

// Step codes of getCloneXattr in the trace log.
enum CloneXattrStep : int { kOpenFile = 1, kReadAttribute = 2, kAttributeTooShort = 3 };

struct AttributeRequest {
  int32_t totalLength;
  int32_t version;
  int32_t errorOffset;
  int32_t reserved;
  int32_t length;
  int32_t type;
  int32_t nameLength;
  int32_t valueLength;
  int32_t flags;
  int32_t reason;
};
static_assert(sizeof(AttributeRequest) == 40);

size_t padded(size_t length) {
  return (length + 7) & ~size_t{7};
}

// `rc` is that of the attribute call: 1 if it found a value.
void traceNoClone(const std::string &path, CloneXattrStep code, int rc, int err) {
  traceLog("getCloneXattr: path %s, rc %d, code %d, err %d, errno %d\n", path.c_str(), 0, code, rc,
           err);
}

// Reads the attribute through an open descriptor. *present is false if there is none.
Result readCloneAttribute(int fd, std::vector<uint8_t> *value, bool *present) {
  static std::vector<char> buffer(kFirstBuffer);
  value->clear();
  *present = false;
  const size_t value_at = sizeof(AttributeRequest) + padded(kAttribute.size());
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    AttributeRequest request{};
    request.totalLength = static_cast<int32_t>(buffer.size());
    request.version = 1;
    request.length = request.totalLength - 16;
    request.type = kGetExtendedAttribute;
    request.nameLength = static_cast<int32_t>(kAttribute.size());
    request.valueLength = static_cast<int32_t>(buffer.size() - value_at);
    std::fill(buffer.begin(), buffer.end(), '\0');
    memcpy(buffer.data(), &request, sizeof request);
    memcpy(buffer.data() + sizeof request, kAttribute.data(), kAttribute.size());

    const Result asked = called(kest_fcntl(fd, buffer.data()));
    memcpy(&request, buffer.data(), sizeof request);
    if (request.reason == kReasonAbsent) return {};
    if (request.reason == kReasonTooSmall) {
      buffer.resize(value_at + static_cast<size_t>(std::max(request.valueLength, 0)));
      continue;
    }
    if (!asked) return asked;
    if (request.valueLength < 0 || static_cast<size_t>(request.valueLength) > buffer.size() - value_at)
      break;
    const auto start = buffer.begin() + static_cast<std::ptrdiff_t>(value_at);
    value->assign(start, start + request.valueLength);
    *present = true;
    return {};
  }
  return errnoResult(EIO);
}

}  // namespace

Result getCloneXattr(const std::string &path, bool *clone, CloneAttr *attr) {
  *clone = false;
  // An O_PATH descriptor suffices to read attributes. It needs no rights and, unlike a real open, has
  // no side effect on devices, FIFOs or leases.
  UniqueFd fd;
  if (Result r = openObject(path, &fd); !r) {
    traceLog("getCloneXattr: open %s failed\n", path.c_str());
    traceNoClone(path, kOpenFile, -1, r.err);
    return r;
  }
  struct stat st;
  if (fstat(fd.get(), &st) == 0 && !S_ISREG(st.st_mode)) return {};
  std::vector<uint8_t> value;
  bool present = false;
  if (Result r = readCloneAttribute(fd.get(), &value, &present); !r) {
    traceLog("getCloneXattr: get clone attr failed, path %s\n", path.c_str());
    traceNoClone(path, kReadAttribute, -1, r.err);
    return r;
  }
  if (!present) return {};
  if (value.size() < attr->bytes.size()) {
    const int length = static_cast<int>(value.size());
    traceLog("getCloneXattr: clone EA too short, path %s, len %d\n", path.c_str(), length);
    traceNoClone(path, kAttributeTooShort, 1, 0);
    return {};
  }
  std::copy_n(value.begin(), attr->bytes.size(), attr->bytes.begin());
  *clone = true;
  return {};
}

// ---- finding the parent of a clone

namespace {

struct HandleCloser {
  void operator()(kest_fssnap_handle_t *handle) const { kest_free_fssnaphandle(handle); }
};
using SnapshotHandle = std::unique_ptr<kest_fssnap_handle_t, HandleCloser>;

Result openByName(const std::string &name, SnapshotHandle *handle) {
  handle->reset(kest_get_fset_snaphandle_by_name(settings.deviceP.c_str(), settings.filesetP.c_str(),
                                                 name.c_str()));
  return *handle ? Result{} : failedErrno(0);
}

Result openSnapshot(uint32_t id, SnapshotHandle *handle) {
  const SnapshotTable &table = snapshotTable();
  const auto found = table.find(id);
  // The run's own snapshot is always listed, so an empty table means that the list could not be made.
  if (found == table.end()) return errnoResult(table.empty() ? EIO : ENOENT);
  SnapshotHandle other, own;
  if (Result r = openByName(found->second, &other); !r) return r;
  // The library judges directories by the snapshot that was opened last, so open the run's own one
  // again.
  if (Result r = openByName(settings.snapOldP, &own); !r) return r;
  *handle = std::move(other);
  return {};
}

Result parentUnknown(uint64_t ino, const Result &r) {
  traceLog("clone parent %lld: cannot be looked for, err %d\n", static_cast<long long>(ino), r.err);
  userMessage(Message::kInodeFailed, ino, strerror(r.err));
  return r;
}

Result isParentOfDepth(kest_fssnap_handle_t *tree, uint64_t ino, int depth, bool *is) {
  *is = false;
  Inode parent;
  if (Result r = openIfThere(tree, ino, &parent); !r) return parentUnknown(ino, r);
  if (!parent) return {};
  bool clone = false;
  CloneAttr attr;
  if (Result r = isClone(parent.get(), &clone, &attr); !r) return r;
  *is = clone && attr.isParent() && attr.depth() == depth;
  return {};
}

}  // namespace

Result otherSnapshot(uint32_t id, kest_fssnap_handle_t **handle) {
  struct Known {
    SnapshotHandle handle;
    Result opened;
  };
  static std::map<uint32_t, Known> snapshots;
  auto known = snapshots.find(id);
  if (known == snapshots.end()) {
    known = snapshots.emplace(id, Known{}).first;
    known->second.opened = openSnapshot(id, &known->second.handle);
  }
  *handle = known->second.handle.get();
  return known->second.opened;
}

Result restoredFromData(const std::string &path, const CloneAttr &attr, const CloneSnapAttr &snap,
                        bool *from_data) {
  *from_data = true;
  if (attr.depth() == 0) return {};
  const uint64_t parent = attr.parentIno();
  kest_fssnap_handle_t *tree = attr.parentInSnapshot() ? nullptr : handles.oldFsP;
  if (tree == nullptr) {
    const Result opened = otherSnapshot(snap.snapId(), &tree);
    // EINVAL: the name now belongs to a snapshot of another fileset.
    if (!opened && opened.err != ENOENT && opened.err != EINVAL) return parentUnknown(parent, opened);
  }
  bool found = false;
  if (tree != nullptr)
    if (Result r = isParentOfDepth(tree, parent, attr.depth() - 1, &found); !r) return r;
  *from_data = !found;
  if (found || !attr.parentInSnapshot()) return {};
  traceLog("clone %s: the parent %lld is not in snapshot %u\n", path.c_str(),
           static_cast<long long>(parent), snap.snapId());
  if (settings.isMaster())
    userMessage(Message::kCloneParentGone, path, static_cast<int64_t>(snap.snapId()));
  return {};
}

// ---- inode numbers of parents that were made again

namespace {

// Sets *living if the inode exists and is a clone parent.
Result isLivingParent(uint64_t ino, bool *living) {
  *living = false;
  Inode file;
  if (Result r = openIfThere(handles.activeFsP, ino, &file); !r || !file) return r;
  bool clone = false;
  CloneAttr attr;
  if (Result r = isClone(file.get(), &clone, &attr); !r) return r;
  *living = clone && attr.isParent();
  return {};
}

Result appendParent(const std::string &path, uint64_t ino, uint64_t now) {
  std::unique_ptr<WorkFile> stream;
  const std::string file = newParentFile(ino);
  if (Result r =
          openBucketFile("recordCloneParentIno", file, WorkFile::Mode::kShared, path, ino, &stream);
      !r)
    return r;
  const Result written = stream->append(formatNewParentLine(now));
  return firstFailure(written, closeWorkFile(stream, file));
}

Result traceUnrecorded(const std::string &path, uint64_t ino, const Result &r) {
  if (!r) {
    traceLog("recordCloneParentIno: path %s, ino %lld\n", path.c_str(), static_cast<long long>(ino));
  }
  return r;
}

}  // namespace

Result recordCloneParentIno(const std::string &path, uint64_t ino) {
  struct stat st;
  if (Result r = statPath(path, &st); !r) return traceUnrecorded(path, ino, failed(0, r.err));
  if (!isRegular(st.st_mode)) return {};
  bool living = false;
  if (Result r = isLivingParent(st.st_ino, &living); !living) {
    traceLog("recordCloneParentIno: %s isn't a clone parent\n", path.c_str());
    return failed(0, r ? EINVAL : r.err);
  }
  return traceUnrecorded(path, ino, appendParent(path, ino, st.st_ino));
}

Result recordTwinParent(const std::string &path, uint64_t parent) {
  uint64_t twin = 0, recorded = 0;
  if (Result r = called(kest_twin(handles.iscanP, parent, &twin)); !r || twin == 0) return r;
  if (Result r = readNewParent(parent, &recorded); !r || recorded == twin) return r;
  return traceUnrecorded(path, parent, appendParent(path, parent, twin));
}

Result readNewParent(uint64_t ino, uint64_t *now) {
  *now = 0;
  std::string text;
  if (Result r = readWholeFile(newParentFile(ino), &text); !r) return r.err == ENOENT ? Result{} : r;
  std::string_view rest = text;
  for (uint64_t number = 0; takeLastNewParent(&rest, &number);) {
    bool living = false;
    if (Result r = isLivingParent(number, &living); !r) return r;
    if (!living) continue;
    *now = number;
    return {};
  }
  return {};
}
