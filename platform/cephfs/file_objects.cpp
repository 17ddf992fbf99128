#include "cephfs/file_objects.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <memory>

namespace kest {

namespace {

constexpr size_t kInFlight = 32;

// A part of an object that differs, in bytes of the object.
struct Part {
  uint64_t start, end;
  bool hole;  // the snapshot has nothing there
};

// An object as a snapshot and the active file have it.
struct ObjectPair {
  bool then = false, now = false;  // there is one
  std::vector<Part> parts;
};

const librados::clone_info_t *headOf(const librados::snap_set_t &snaps) {
  return !snaps.clones.empty() && snaps.clones.back().cloneid == librados::SNAP_HEAD
             ? &snaps.clones.back()
             : nullptr;
}

// Appends what of [0, size) is in none of the ranges, which are in order.
void addRest(const std::vector<std::pair<uint64_t, uint64_t>> &ranges, uint64_t size,
             std::vector<Part> *parts) {
  uint64_t at = 0;
  for (const auto &[start, length] : ranges) {
    if (start > at) parts->push_back({at, std::min(start, size), false});
    at = std::max(at, start + length);
    if (at >= size) return;
  }
  if (at < size) parts->push_back({at, size, false});
}

// When a client first changes an object after a snapshot, the object store keeps the former state as a
// clone that names the snapshot. (These clones of objects are not the clones of files.) Each clone
// lists the ranges in which it equals the next version.
ObjectPair compareVersions(const librados::snap_set_t &snaps, uint64_t snapid) {
  ObjectPair object;
  const librados::clone_info_t *head = headOf(snaps);
  object.now = head != nullptr;
  size_t at = 0;
  for (; at < snaps.clones.size(); ++at) {
    const librados::clone_info_t &one = snaps.clones[at];
    if (&one != head && std::find(one.snaps.begin(), one.snaps.end(), snapid) != one.snaps.end()) break;
  }
  if (at == snaps.clones.size()) {
    // The object has not been written since the snapshot, or did not exist then.
    object.then = head != nullptr && snaps.seq < snapid;
    if (object.now && !object.then && head->size > 0) object.parts.push_back({0, head->size, true});
    return object;
  }
  object.then = true;
  const uint64_t size_then = snaps.clones[at].size;
  if (head == nullptr) {
    object.parts.push_back({0, size_then, false});
    return object;
  }
  for (size_t i = at; &snaps.clones[i] != head; ++i) {
    const uint64_t longest = std::max(snaps.clones[i].size, snaps.clones[i + 1].size);
    addRest(snaps.clones[i].overlap, longest, &object.parts);
  }
  std::sort(object.parts.begin(), object.parts.end(),
            [](const Part &a, const Part &b) { return a.start < b.start; });
  std::vector<Part> merged;
  for (const Part &part : object.parts) {
    if (merged.empty() || part.start > merged.back().end)
      merged.push_back(part);
    else
      merged.back().end = std::max(merged.back().end, part.end);
  }
  object.parts = std::move(merged);
  return object;
}

// Reads the versions of objects in order, with several requests in flight.
class ObjectReader {
 public:
  ObjectReader(librados::IoCtx &io, uint64_t ino, uint64_t first, uint64_t end)
      : io_(io), ino_(ino), ask_(first), end_(end) {}
  ~ObjectReader() {
    for (const std::unique_ptr<Question> &one : asked_) one->done->wait_for_complete();
  }

  // Reads the versions of the next object, beginning with `first`. 1; 0: there is none; or -errno.
  int next(librados::snap_set_t *snaps) {
    while (asked_.size() < window_ && ask_ < end_) {
      if (int rc = ask(); rc < 0) return rc;
    }
    if (asked_.empty()) return -EINVAL;
    const std::unique_ptr<Question> first = std::move(asked_.front());
    asked_.pop_front();
    window_ = std::min(kInFlight, window_ * 2);
    first->done->wait_for_complete();
    int rc = first->done->get_return_value();
    if (rc == 0) rc = first->rc;
    if (rc == -ENOENT) return 0;
    if (rc < 0) return rc;
    *snaps = std::move(first->snaps);
    return 1;
  }

 private:
  struct Question {
    librados::snap_set_t snaps;
    int rc = 0;
    std::unique_ptr<librados::AioCompletion> done{librados::Rados::aio_create_completion()};
  };

  int ask() {
    auto question = std::make_unique<Question>();
    librados::ObjectReadOperation operation;
    operation.list_snaps(&question->snaps, &question->rc);
    const int rc = io_.aio_operate(objectName(ino_, ask_++), question->done.get(), &operation,
                                   librados::SNAP_DIR, 0, nullptr);
    if (rc == 0) asked_.push_back(std::move(question));
    return rc;
  }

  librados::IoCtx &io_;
  const uint64_t ino_;
  uint64_t ask_;
  const uint64_t end_;
  size_t window_ = 1;  // most callers want to know of one object
  std::deque<std::unique_ptr<Question>> asked_;
};

void append(const FileRange &range, size_t first, std::vector<FileRange> *ranges) {
  FileRange *last = ranges->size() > first ? &ranges->back() : nullptr;
  if (last != nullptr && last->start + last->length == range.start && last->hole == range.hole)
    last->length += range.length;
  else
    ranges->push_back(range);
}

int poolOf(const InodeRef &file, const FileLayout &layout, librados::IoCtx **io) {
  return file.client()->pool(layout.pool, layout.name_space, io);
}

}  // namespace

// Reading the attribute ceph.file.layout would be a request by number, which fails for an inode of a
// snapshot if the active inode has been deleted.
int readLayoutText(const InodeRef &file, std::string *text) {
  struct ceph_file_layout known {};
  ceph_mount_info *mount = file.client()->mount();
  if (ceph_ll_file_layout(mount, file.get(), &known) != 0) return -EIO;
  char pool[256];
  const int length = ceph_get_pool_name(mount, static_cast<int>(known.pool), pool, sizeof pool);
  if (length < 0) return length;
  *text = "stripe_unit=" + std::to_string(known.stripe_unit) +
          " stripe_count=" + std::to_string(known.stripe_count) +
          " object_size=" + std::to_string(known.object_size) +
          " pool=" + std::string(pool, static_cast<size_t>(length));
  return 0;
}

int readLayout(const InodeRef &file, FileLayout *layout) {
  std::string text;
  int rc = readLayoutText(file, &text);
  if (rc < 0) return rc;
  if (!layout->parse(text)) return -EUCLEAN;
  rc = file.client()->readXattr(file, "ceph.file.layout.pool_namespace", &layout->name_space);
  if (rc == -ENODATA) layout->name_space.clear();
  return rc == -ENODATA ? 0 : rc;
}

int diffObjects(const InodeRef &file, uint64_t ino, uint64_t snapid, uint64_t from, uint64_t to,
                size_t limit, std::vector<FileRange> *ranges) {
  FileLayout layout;
  librados::IoCtx *io;
  if (from >= to) return 0;
  if (int rc = readLayout(file, &layout); rc < 0) return rc;
  if (int rc = poolOf(file, layout, &io); rc < 0) return rc;
  const size_t first = ranges->size();
  // A set of objects is a stretch of the file, within which its objects take turns.
  const uint64_t set = layout.object_size * layout.stripe_count;
  const uint64_t object_from = from / set * layout.stripe_count;
  const uint64_t object_end = layout.objectsOf(to);
  ObjectReader reader(*io, ino, object_from, object_end);
  std::vector<FileRange> found;
  for (uint64_t object = object_from; object < object_end; ++object) {
    librados::snap_set_t snaps;
    const int rc = reader.next(&snaps);
    if (rc < 0) return rc;
    if (rc > 0) {
      for (const Part &part : compareVersions(snaps, snapid).parts) {
        layout.piecesOf(object, part.start, part.end, [&](uint64_t start, uint64_t end) {
          start = std::max(start, from);
          end = std::min(end, to);
          if (start < end) found.push_back({start, end - start, part.hole});
        });
      }
    }
    if ((object + 1) % layout.stripe_count != 0 && object + 1 < object_end) continue;
    std::sort(found.begin(), found.end(),
              [](const FileRange &a, const FileRange &b) { return a.start < b.start; });
    for (const FileRange &range : found) append(range, first, ranges);
    found.clear();
    // One more than the limit: the last may go on.
    if (ranges->size() - first > limit) break;
  }
  if (ranges->size() - first > limit) ranges->resize(first + limit);
  return 0;
}

int stretchOfObjects(const FileLayout &layout, const InodeRef &file, uint64_t ino, uint64_t snapid,
                     uint64_t offset, uint64_t end, uint64_t *stop, bool *hole) {
  librados::IoCtx *io;
  if (int rc = poolOf(file, layout, &io); rc < 0) return rc;
  *stop = offset;
  // Without striping, neighbouring parts of the file are neighbouring objects, so one reader can ask
  // ahead about a long hole.
  const bool striped = layout.stripe_count > 1;
  std::unique_ptr<ObjectReader> reader;
  for (uint64_t at = offset; at < end;) {
    // Within a stripe unit there is one object.
    const uint64_t unit = striped ? layout.stripe_unit : layout.object_size;
    const uint64_t unit_end = std::min(end, (at / unit + 1) * unit);
    const uint64_t object = layout.objectAt(at);
    if (striped || reader == nullptr)
      reader = std::make_unique<ObjectReader>(*io, ino, object,
                                              striped ? object + 1 : layout.objectsOf(end));
    librados::snap_set_t snaps;
    const int rc = reader->next(&snaps);
    if (rc < 0) return rc;
    bool there = false;
    if (rc > 0 && snapid == kActive) there = headOf(snaps) != nullptr;
    if (rc > 0 && snapid != kActive) there = compareVersions(snaps, snapid).then;
    if (at == offset)
      *hole = !there;
    else if (*hole == there)
      break;
    *stop = at = unit_end;
    // Callers read data in pieces anyway, so stop after one unit of data. Follow a hole, because it can
    // be long.
    if (!*hole) break;
  }
  return 0;
}

}  // namespace kest
