#include "plan/data_ranges.h"

#include <algorithm>

#include "object/clones.h"
#include "plan/truncations.h"
#include "records/aggregate.h"
#include "records/side_lists.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "scan/same_file.h"

namespace {

// Step codes in the trace lines of ListRecord and DirListRecord.
enum RangeStep : int {
  kWriteRecord = 2,
  kOpenInodes = 11,
  kListChanges = 15,
  kListTail = 16,
  kOpenDeleted = 17,
  kReadClone = 18,  // or finding the clone's parent
  kListClone = 31,
};

// Two ranges with at most this many equal bytes between them become one record: sharing those bytes
// again is cheaper than another record.
constexpr int64_t kNearby = 65536;

struct DataRange {
  int64_t offset = 0;
  int64_t length = 0;
  bool hole = false;

  int64_t end() const { return offset + length; }
};

// Writes the records of one file's ranges. Sharing blocks costs the same for any length, so a shareable
// range is one record. A range that must be copied is cut into frames, each with an aggregate of its
// own, so that several workers share the copy of a large file. rc of a failure is the errno.
class DataWalk {
 public:
  // `clone` marks the records as those of a clone or clone parent. `shareable` says that the file can
  // share blocks with the snapshot's.
  DataWalk(WorkFile &list, const std::string &path, uint64_t ino, OpCode op, bool clone, bool shareable)
      : list_(list), path_(path), ino_(ino), op_(op), clone_(clone), shareable_(shareable) {}

  // Adds a range that begins at or after the end of the previous one.
  Result addRange(const DataRange &range) {
    if (range.length <= 0) return {};
    if (waiting_.length > 0 && range.offset - waiting_.end() <= kNearby) {
      // The merged record is a hole only if both ranges are holes and adjacent.
      waiting_.hole = waiting_.hole && range.hole && range.offset == waiting_.end();
      waiting_.length = range.end() - waiting_.offset;
      return {};
    }
    if (Result r = writeWaiting(); !r) return r;
    waiting_ = range;
    return {};
  }

  // Adds the part of [from, end) that begins after the last range.
  Result addRest(int64_t from, int64_t end) {
    const int64_t start = std::max(from, waiting_.end());
    return addRange({start, end - start, false});
  }

  // Writes one record for the whole file, whatever its size.
  Result addWhole(int64_t size) { return addRecord({0, size, false}, false); }

  // Writes the range that addRange holds back. Without any range, writes a record that restores the
  // attributes only. Call it last.
  Result finish() {
    if (Result r = writeWaiting(); !r) return r;
    return written_ ? Result{} : addWhole(0);
  }

 private:
  Result writeWaiting() {
    DataRange range = waiting_;
    waiting_ = {};
    if (range.length == 0) return {};
    if (range.hole || shareable_ || range.length <= settings.frameSize / settings.unitSize)
      return addRecord(range, false);
    for (int64_t left = range.length; left > 0; range.offset += range.length, left -= range.length) {
      range.length = std::min<int64_t>(left, settings.frameSize);
      if (Result r = addRecord(range, written_); !r) return r;
    }
    return {};
  }

  Result addRecord(const DataRange &range, bool own_aggregate) {
    AggregateCounter &counter = aggregates.main;
    if (own_aggregate) {
      counter.startAggregate();
    } else {
      counter.countRecord(settings.unitSize);
    }
    written_ = true;
    const Operation op{op_, range.offset, static_cast<uint64_t>(range.length), range.hole, clone_};
    const Result result = list_.appendRecord(counter.iAgg, ino_, path_, op);
    if (result) reportOpCount(false);
    return result;
  }

  WorkFile &list_;
  const std::string &path_;
  uint64_t ino_;
  OpCode op_;
  bool clone_, shareable_;
  DataRange waiting_;
  bool written_ = false;
};

// One file whose changes are listed.
struct ChangedFile {
  const RangeWriter &writer;
  const std::string &path;
  uint64_t ino;
  kest_change_t change{};
  int64_t snap_size = 0, active_size = 0;  // bytes
};

Result lookAt(ChangedFile &file) {
  if (const Result r = called(kest_ichange(handles.iscanP, file.ino, &file.change)); !r) {
    traceLog("%s: cannot open ino %lld, iFromP %p, iToP %p\n", file.writer.name,
             static_cast<long long>(file.ino), static_cast<void *>(nullptr),
             static_cast<void *>(nullptr));
    return failed(kOpenInodes, r.err);
  }
  file.snap_size = static_cast<int64_t>(file.change.ch_snap_size);
  file.active_size = static_cast<int64_t>(file.change.ch_size);
  return {};
}

Result truncateActive(const ChangedFile &file, int64_t to) {
  if (Result r = truncateListed({file.path, file.ino, to}); !r) return r;
  traceLog("%s: MODIFY truncate file %s from %ld to %ld\n", file.writer.name, file.path.c_str(),
           file.active_size, to);
  return {};
}

// Sets the size of a file before a worker starts, because several workers can write ranges of it. If
// the end of the file can be shared, that also sets the size, and no block is written only to clear its
// rest. Such a file is cut at the start of the snapshot's last block if it is too long, and left alone
// if it is too short. One record alone then reaches beyond the present size: ranges that touch each
// other are merged, and a range that can be shared is not cut into frames.
Result setSize(const ChangedFile &file, bool shares_end, int64_t *size_now) {
  if (file.snap_size == file.active_size) return {};
  if (shares_end && file.snap_size > file.active_size) return {};
  *size_now = shares_end ? file.snap_size - file.snap_size % kBlock : file.snap_size;
  return truncateActive(file, *size_now);
}

// Lists the ranges in which the files differ, up to the smaller of both sizes.
Result listDifferences(const ChangedFile &file, DataWalk &walk) {
  const kest_change_t &change = file.change;
  const DataRange first{static_cast<int64_t>(change.ch_start), static_cast<int64_t>(change.ch_length),
                        change.ch_hole != 0};
  if (Result r = walk.addRange(first); !r) return failed(kListChanges, r.err);
  // The difference knows the first range, so most files need not be opened.
  if (!change.ch_more) return {};
  Inode active;
  if (Result r = openInode(handles.activeFsP, file.ino, &active); !r) return r.at(kListChanges);
  const int64_t common = std::min(file.snap_size, file.active_size);
  for (int64_t offset = first.end(); offset < common;) {
    int hole = 0;
    const int64_t length =
        kest_ireadx(active.get(), handles.iscanP, nullptr, 0, &offset, common, &hole);
    if (length < 0) return failed(kListChanges);
    if (length == 0) break;
    if (Result r = walk.addRange({offset, length, hole != 0}); !r) return failed(kListChanges, r.err);
    offset += length;
  }
  return {};
}

// Lists all data beyond the end of the active file. Extending that file fills its last block with
// zeros. If the snapshot has a hole there, the list begins at the start of that block, because only
// whole blocks can become holes.
Result listLostTail(const ChangedFile &file, DataWalk &walk) {
  const int64_t snap_size = file.snap_size, active_size = file.active_size;
  if (active_size >= snap_size) return {};
  const int64_t tail = active_size - active_size % kBlock;
  Inode snap;
  if (Result r = openSnapshotInode(file.ino, file.path, &snap); !r) return r.at(kListTail);
  for (int64_t offset = tail; offset < snap_size;) {
    int hole = 0;
    int64_t length = kest_ireadx(snap.get(), handles.iscanFromP, nullptr, 0, &offset, snap_size, &hole);
    if (length < 0) return failed(kListTail);
    // The snapshot's file ends before its size, so data would silently be missing from the list.
    if (length == 0) return failed(kListTail, EIO);
    if (!hole && offset < active_size) {
      length -= std::min(length, active_size - offset);
      offset = active_size;
      if (length == 0) continue;
    }
    if (Result r = walk.addRange({offset, length, hole != 0}); !r) return failed(kListTail, r.err);
    offset += length;
  }
  return {};
}

// A file whose clone state differs is made again and never listed as changed, so the snapshot's clone
// state is the active file's, too.
Result readCloneState(const ChangedFile &file, bool *clone) {
  *clone = false;
  if (!mayBeClone(file.ino)) return {};
  Inode snap;
  if (Result r = openInode(handles.oldFsP, file.ino, &snap); !r) return r.at(kOpenInodes);
  return isClone(snap.get(), clone).at(kReadClone);
}

// One record makes the file with all its data. Between two records, somebody with write access to the
// directory could put another user's file in its place.
Result listCreation(const RangeWriter &writer, WorkFile &list, const std::string &path, uint64_t ino,
                    int64_t size, bool clone) {
  DataWalk creation(list, path, ino, kOpRestoreDelFile, size > 0 && clone, true);
  const Result added = creation.addWhole(size);
  return added ? added : failed(writer.creationCode, added.err);
}

}  // namespace

Result listChangedFile(const RangeWriter &writer, WorkFile &list, const std::string &path,
                       uint64_t ino) {
  ChangedFile file{.writer = writer, .path = path, .ino = ino};
  if (Result r = lookAt(file); !r) return r;
  const kest_change_t &change = file.change;
  bool clone = false;
  if (change.ch_regular)
    if (Result r = readCloneState(file, &clone); !r) return r;
  DataWalk walk(list, path, ino, kOpRestoreDiffFile, clone, change.ch_shareable != 0);
  if (!change.ch_regular) return walk.finish().at(kWriteRecord);

  // The file system can change how a file is stored (copy-on-write or not, say) only while it is empty.
  if (change.ch_other_storage && !clone && !settings.noXAttr) {
    if (file.active_size > 0)
      if (Result r = truncateActive(file, 0); !r) return r;
    return walk.addWhole(file.snap_size).at(kWriteRecord);
  }
  int64_t size_now = file.active_size;
  if (Result r = setSize(file, change.ch_shareable != 0 && !clone, &size_now); !r) return r;
  if (Result r = listDifferences(file, walk); !r) return r;
  if (Result r = listLostTail(file, walk); !r) return r;
  if (size_now < file.active_size)
    if (Result r = walk.addRest(size_now, file.snap_size); !r) return failed(kListTail, r.err);
  // Also restores a file of which only the attributes changed, or which became empty.
  return walk.finish().at(kWriteRecord);
}

Result listDeletedFile(const RangeWriter &writer, WorkFile &copy_list, const std::string &path,
                       uint64_t ino) {
  kest_lost_t lost;
  const int known = kest_ilost(handles.iscanP, ino, &lost);
  if (known < 0) return failed(kOpenDeleted);
  if (known > 0)
    return listCreation(writer, copy_list, path, ino,
                        lost.lo_regular ? static_cast<int64_t>(lost.lo_size) : 0, false);
  Inode snap;
  if (Result r = openSnapshotInode(ino, path, &snap); !r) {
    traceLog("%s: cannot open ino %lld, iFromP %p\n", writer.name, static_cast<long long>(ino),
             static_cast<void *>(nullptr));
    return failed(kOpenDeleted, r.err);
  }
  CloneAttr attr;
  CloneSnapAttr attr_snap;
  bool clone = false;
  if (Result r = isClone(snap.get(), &clone, &attr, &attr_snap); !r) return r.at(kReadClone);
  if (clone) {
    bool from_data = false;
    if (Result r = restoredFromData(path, attr, attr_snap, &from_data); !r) return r.at(kReadClone);
    if (!from_data && !attr.parentInSnapshot()) {
      if (Result r = recordTwinParent(path, attr.parentIno()); !r) return r.at(kListClone);
    }
    if (!from_data || attr.isParent()) {
      if (Result r = listClone(path, false, attr); !r) {
        traceLog("%s: failed to listClone %s\n", writer.name, path.c_str());
        return r.at(kListClone);
      }
    }
    if (!from_data) return {};
  }
  const int64_t size = isRegular(snap->if_mode) ? static_cast<int64_t>(snap->if_size) : 0;
  return listCreation(writer, copy_list, path, ino, size, clone);
}
