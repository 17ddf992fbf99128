#include "oplist/data_ranges.h"

#include <algorithm>
#include <cerrno>

#include "object/clear_flags.h"
#include "object/clone_origin.h"
#include "object/temp_place.h"
#include "oplist/clone_lists.h"
#include "oplist/main_lists.h"
#include "record/aggregate.h"
#include "record/record_format.h"
#include "run/progress.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/same_file.h"

namespace {

constexpr int64_t kBlock = 4096;  // bytes; holes are made of whole blocks

// Equal data between two ranges is shared along with them where it is no longer than this, in bytes:
// that is cheaper than one more record.
constexpr int64_t kNearby = 65536;

struct DataRange {
  int64_t offset = 0;
  int64_t length = 0;
  bool hole = false;

  int64_t end() const { return offset + length; }
};

// Writes the records of one data walk. A range whose blocks are shared costs the same whatever its
// length, so it is one record among others; one that has to be copied is cut into frames, each an
// aggregate of its own, so that many workers can share a large file.
class DataWalk {
 public:
  // `clone`: the records say that the file is a clone or a clone parent. `shareable`: its blocks can be
  // shared with the snapshot's.
  DataWalk(WorkFile &list, const std::string &path, uint64_t ino, OpCode op, bool clone, bool shareable)
      : list_(list), path_(path), ino_(ino), op_(op), clone_(clone), shareable_(shareable) {}

  // Lists a range that begins at or behind the end of the one before. 0 or -1 and errno.
  int addRange(const DataRange &range) {
    if (range.length <= 0) return 0;
    if (waiting_.length > 0 && range.offset - waiting_.end() <= kNearby) {
      waiting_.hole = waiting_.hole && range.hole && range.offset == waiting_.end();
      waiting_.length = range.end() - waiting_.offset;
      return 0;
    }
    if (writeWaiting() != 0) return -1;
    waiting_ = range;
    return 0;
  }

  // One record for the whole file, whatever its size.
  int addWhole(int64_t size) { return addRecord({0, size, false}, false); }

  // Writes what addRange has kept back. To be called last.
  int writeWaiting() {
    DataRange range = waiting_;
    waiting_ = {};
    if (range.length == 0) return 0;
    if (range.hole || shareable_ || range.length <= settings.frameSize / settings.unitSize)
      return addRecord(range, false);
    for (int64_t left = range.length; left > 0; range.offset += range.length, left -= range.length) {
      range.length = std::min<int64_t>(left, settings.frameSize);
      if (addRecord(range, written_) != 0) return -1;
    }
    return 0;
  }

  // writeWaiting, and a record without a range where there was none: it restores the attributes.
  int finish() {
    if (writeWaiting() != 0) return -1;
    return written_ ? 0 : addWhole(0);
  }

 private:
  int addRecord(const DataRange &range, bool own_aggregate) {
    AggregateCounter &counter = aggregates.main;
    if (own_aggregate) {
      counter.startAggregate();
    } else {
      counter.countRecord(settings.unitSize);
    }
    written_ = true;
    const std::string op =
        formatOpString(op_, range.offset, static_cast<uint64_t>(range.length), range.hole, clone_);
    if (writeListRecord(list_, counter.iAgg, ino_, path_, op) != 0) return -1;
    reportOpCount(false);
    return 0;
  }

  WorkFile &list_;
  const std::string &path_;
  uint64_t ino_;
  OpCode op_;
  bool clone_, shareable_;
  DataRange waiting_;
  bool written_ = false;
};

ListResult fail(int rc, int code) {
  return {rc != 0 ? rc : -1, code};
}

// The next range of all of a file, data or hole. Its length; -1 and errno, also where the file ends
// before `end`: what is not listed would be missing.
int64_t nextOfAll(kest_ifile_t *file, int64_t *offset, int64_t end, int *hole) {
  const int64_t length = kest_ireadx(file, handles.iscanFromP, nullptr, 0, offset, end, hole);
  if (length != 0) return length;
  errno = EIO;
  return -1;
}

int truncateActive(const RangeWriter &writer, const std::string &path, uint64_t ino, int64_t from,
                   int64_t to, int *code) {
  bool clearing_failed = false;
  int err = retryClearing(
      path, "", [&] { return kest_truncate(handles.activeFsP, linkFree(path).c_str(), to, ino); },
      &clearing_failed);
  if (err != 0) {
    *code = clearing_failed ? 141 : 14;
    errno = err;
    return -1;
  }
  traceLog("%s: MODIFY truncate file %s from %ld to %ld\n", writer.name, path.c_str(), from, to);
  return 0;
}

}  // namespace

ListResult listChangedFile(const RangeWriter &writer, const std::string &path, uint64_t ino) {
  Inode snap = openInode(handles.oldFsP, ino);
  Inode active = snap ? openInode(handles.activeFsP, ino) : Inode();
  if (!snap || !active) {
    int saved = errno;
    traceLog("%s: cannot open ino %lld, iFromP %p, iToP %p\n", writer.name, static_cast<long long>(ino),
             static_cast<void *>(snap.get()), static_cast<void *>(active.get()));
    errno = saved;
    return fail(-1, 11);
  }
  // A file of another clone state never comes here, it is made anew: the active file carries what the
  // snapshot's does.
  const bool clone = mayBeClone(ino) && isClone(snap.get(), nullptr, nullptr);
  const int shareable = kest_ishareable(snap.get(), active.get());
  if (shareable < 0) return fail(-1, 14);
  DataWalk walk(*writer.list, path, ino, kOpRestoreDiffFile, clone, shareable > 0);
  if (!isRegular(snap->if_mode)) return walk.finish() == 0 ? ListResult{} : fail(errno, 2);

  const int64_t snap_size = static_cast<int64_t>(snap->if_size);
  const int64_t active_size = static_cast<int64_t>(active->if_size);
  int code = 0;
  // Copy-on-write can be turned on and off for an empty file only.
  if (shareable == 0 && !clone && !settings.noXAttr) {
    if (active_size > 0 && truncateActive(writer, path, ino, active_size, 0, &code) != 0)
      return fail(-1, code);
    return walk.addWhole(snap_size) == 0 ? ListResult{} : fail(errno, 2);
  }
  if (snap_size != active_size) {
    if (truncateActive(writer, path, ino, active_size, snap_size, &code) != 0) return fail(-1, code);
  }

  const int64_t common = std::min(snap_size, active_size);
  for (int64_t offset = 0; offset < common;) {
    int hole = 0;
    int64_t length = kest_ireadx(active.get(), handles.iscanP, nullptr, 0, &offset, common, &hole);
    if (length < 0) return fail(-1, 15);
    if (length == 0) break;
    if (walk.addRange({offset, length, hole != 0}) != 0) return fail(-1, 15);
    offset += length;
  }
  // What the active file lost at its end: all of it, as the snapshot has it. The block in which the
  // active file ended holds zeros up to its end now; where the snapshot has a hole, only the whole
  // block can become one again.
  const int64_t tail = active_size < snap_size ? active_size - active_size % kBlock : snap_size;
  for (int64_t offset = tail; offset < snap_size;) {
    int hole = 0;
    int64_t length = nextOfAll(snap.get(), &offset, snap_size, &hole);
    if (length < 0) return fail(-1, 16);
    if (!hole && offset < active_size) {
      length -= std::min(length, active_size - offset);
      offset = active_size;
      if (length == 0) continue;
    }
    if (walk.addRange({offset, length, hole != 0}) != 0) return fail(-1, 16);
    offset += length;
  }
  // Attributes alone changed, or all data went: without a record nothing would restore them.
  return walk.finish() == 0 ? ListResult{} : fail(errno, 2);
}

ListResult listDeletedFile(const RangeWriter &writer, const std::string &path, uint64_t ino) {
  Inode snap = openInode(handles.oldFsP, ino);
  if (!snap) {
    int saved = errno;
    traceLog("%s: cannot open ino %lld, iFromP %p\n", writer.name, static_cast<long long>(ino),
             static_cast<void *>(nullptr));
    errno = saved;
    return fail(-1, 17);
  }
  CloneAttr attr;
  CloneSnapAttr attr_snap;
  const bool clone = isClone(snap.get(), &attr, &attr_snap);
  if (clone) {
    const bool from_data = restoredFromData(path, attr, attr_snap);
    if (int rc = !from_data || attr.isParent() ? listClone(path, false, attr) : 0) {
      const int saved = errno;
      traceLog("%s: failed to listClone %s\n", writer.name, path.c_str());
      errno = saved;
      return fail(rc, 31);
    }
    if (!from_data) return {};
  }
  // One record makes the file with all of its data: between two, somebody with a right to the directory
  // could put another user's file in its place.
  const int64_t size = isRegular(snap->if_mode) ? static_cast<int64_t>(snap->if_size) : 0;
  DataWalk creation(*cpListP, path, ino, kOpRestoreDelFile, size > 0 && clone, true);
  return creation.addWhole(size) == 0 ? ListResult{} : fail(-1, writer.creationCode);
}
