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

namespace {

constexpr int64_t kBlock = 4096;  // bytes; holes are made of whole blocks

// Writes the records of one data walk. The first joins the current aggregate; every later one starts an
// aggregate of its own, so that many workers can share a large file.
class DataWalk {
 public:
  // `clone`: the records say that the file is a clone or a clone parent, whose data is shared.
  DataWalk(WorkFile &list, const std::string &path, uint64_t ino, OpCode op, bool clone = false)
      : list_(list), path_(path), ino_(ino), op_(op), clone_(clone) {}

  bool empty() const { return first_; }

  // Lists [offset, offset + length), cut into frames unless `whole`. 0 or -1 and errno.
  int addRange(int64_t offset, int64_t length, int hole, bool whole) {
    while (length > 0) {
      int64_t piece = whole ? length : std::min<int64_t>(length, settings.frameSize);
      if (addRecord(offset, piece, hole) != 0) return -1;
      offset += piece;
      length -= piece;
    }
    return 0;
  }

  int addRecord(int64_t offset, int64_t length, int hole) {
    AggregateCounter &counter = aggregates.main;
    if (first_) {
      counter.countRecord(settings.unitSize);
    } else {
      counter.startAggregate();
    }
    first_ = false;
    std::string op = formatOpString(op_, offset, static_cast<uint64_t>(length), hole, clone_);
    if (writeListRecord(list_, counter.iAgg, ino_, path_, op) != 0) return -1;
    reportOpCount(false);
    return 0;
  }

 private:
  WorkFile &list_;
  const std::string &path_;
  uint64_t ino_;
  OpCode op_;
  bool clone_;
  bool first_ = true;
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
  DataWalk walk(*writer.list, path, ino, kOpRestoreDiffFile, isClone(snap.get(), nullptr, nullptr));
  if (!isRegular(snap->if_mode)) {
    return walk.addRecord(0, 0, 0) == 0 ? ListResult{} : fail(errno, 2);
  }

  const int64_t snap_size = static_cast<int64_t>(snap->if_size);
  const int64_t active_size = static_cast<int64_t>(active->if_size);
  if (snap_size != active_size) {
    int code = 0;
    if (truncateActive(writer, path, ino, active_size, snap_size, &code) != 0) return fail(-1, code);
  }

  const int64_t common = std::min(snap_size, active_size);
  for (int64_t offset = 0; offset < common;) {
    int hole = 0;
    int64_t length = kest_ireadx(active.get(), handles.iscanP, nullptr, 0, &offset, common, &hole);
    if (length < 0) return fail(-1, 15);
    if (length == 0) break;
    if (walk.addRange(offset, length, hole, false) != 0) return fail(-1, 15);
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
    if (walk.addRange(offset, length, hole, hole != 0) != 0) return fail(-1, 16);
    offset += length;
  }
  // Attributes alone changed, or all data went: without a record nothing would restore them.
  if (walk.empty() && walk.addRecord(0, 0, 0) != 0) return fail(errno, 2);
  return {};
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
  DataWalk creation(*cpListP, path, ino, kOpRestoreDelFile);
  if (creation.addRecord(0, 0, 0) != 0) return fail(-1, writer.creationCode);
  if (!isRegular(snap->if_mode)) return {};

  const int64_t size = static_cast<int64_t>(snap->if_size);
  DataWalk walk(*cpDeltaP, path, ino, kOpRestoreDelFile, clone);
  for (int64_t offset = 0; offset < size;) {
    int hole = 0;
    const int64_t length = nextOfAll(snap.get(), &offset, size, &hole);
    if (length < 0) return fail(-1, writer.dataCode);
    if (walk.addRange(offset, length, hole, hole != 0) != 0) return fail(-1, writer.dataCode);
    offset += length;
  }
  return {};
}
