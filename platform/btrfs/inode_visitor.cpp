#include "btrfs/inode_visitor.h"

#include <dirent.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <string_view>

#include "btrfs/inode_compare.h"
#include "btrfs/inode_flags.h"
#include "filesystem/clone_attribute.h"

namespace kest {

namespace {

// A ctime proves that an inode is unchanged only if it is older than the line by more than this. Two
// changes within one tick of the clock leave the same ctime; a tick is far shorter than two seconds.
constexpr int64_t kClockMargin = 2;  // seconds

constexpr size_t kPendingMost = 64 * 1024;  // inodes

}  // namespace

unsigned kindOf(const InodeItem &active) {
  if (!S_ISREG(active.mode)) return 0;
  return kDiffRegular |
         ((storageFlagsOfItem(active.mode, active.flags) & FS_NOCOW_FL) != 0 ? kDiffNoCow : 0);
}

bool severalNames(const InodeItem *item) {
  return item != nullptr && !S_ISDIR(item->mode) && item->nlink > 1;
}

void sortOnce(std::vector<uint64_t> *numbers) {
  std::sort(numbers->begin(), numbers->end());
  numbers->erase(std::unique(numbers->begin(), numbers->end()), numbers->end());
}

int InodeVisitor::visitTouched(TouchedChunks *chunks) {
  TouchedChunk chunk;
  for (;;) {
    int rc = chunks->next(&chunk);
    if (rc <= 0) return rc;
    active_.lookIn(chunk.whole ? &chunk.window : nullptr);
    snapshot_.lookIn(chunk.whole ? &then_ : nullptr);
    rc = visitChunk(chunk);
    active_.lookIn(nullptr);
    snapshot_.lookIn(nullptr);
    if (rc < 0) return rc;
  }
}

// Reads the snapshot's items from inode `ino` on, unless they have been read already.
int InodeVisitor::readThen(uint64_t ino) {
  const TreeKey key{ino, 0, 0};
  return then_.holds(key) ? 0 : then_.read(common_.root.fd.get(), common_.snapshot_id, key, kScanBytes);
}

// Merges the touched inodes of both trees and visits each number once.
int InodeVisitor::visitChunk(const TouchedChunk &chunk) {
  TouchedInBatch now(common_.line);
  now.begin(chunk.active());
  int rc = now.next();
  TouchedInodes then(common_.root.fd.get(), common_.snapshot_id, common_.line, chunk.first, chunk.last);
  if (rc == 0 && common_.snapshot_changed && chunk.first <= chunk.last) rc = then.next();
  while (rc == 0 && (now.ino() != 0 || then.ino() != 0)) {
    const bool from_active = now.ino() != 0 && (then.ino() == 0 || now.ino() <= then.ino());
    const bool from_snapshot = then.ino() != 0 && (now.ino() == 0 || then.ino() <= now.ino());
    const uint64_t ino = from_active ? now.ino() : then.ino();
    const InodeItem *active = from_active ? &now.item() : nullptr;
    const InodeItem *snapshot = from_snapshot ? &then.item() : nullptr;
    if (chunk.whole) rc = readThen(ino);
    if (rc < 0) return rc;
    InodeItem other;
    if (active == nullptr || snapshot == nullptr) {
      rc = readInode(active == nullptr ? active_.inodes : snapshot_.inodes, ino, &other);
      if (rc < 0) return rc;
      if (rc > 0) (active == nullptr ? active : snapshot) = &other;
    }
    rc = visit(ino, active, snapshot);
    if (rc == 0 && from_active) rc = now.next();
    if (rc == 0 && from_snapshot) rc = then.next();
  }
  return rc;
}

int InodeVisitor::visitThese(const uint64_t *begin, const uint64_t *end) {
  for (const uint64_t *ino = begin; ino != end; ++ino) {
    InodeItem active, snapshot;
    int found_active = readInode(active_.inodes, *ino, &active);
    int found_snapshot = found_active < 0 ? 0 : readInode(snapshot_.inodes, *ino, &snapshot);
    if (found_active < 0 || found_snapshot < 0) return std::min(found_active, found_snapshot);
    // The sweep has visited it.
    if (found_active > 0 && active.transid > common_.line) continue;
    if (found_snapshot > 0 && snapshot.transid > common_.line) continue;
    int rc =
        visit(*ino, found_active > 0 ? &active : nullptr, found_snapshot > 0 ? &snapshot : nullptr);
    if (rc < 0) return rc;
  }
  return 0;
}

// Returns true if an inode was written after the line but did not change: reading a file can write a
// new access time, for example. An equal ctime alone is no proof. Two changes within one tick of the
// clock leave the same ctime, and the second may not change the sequence. So the ctime counts only if
// it is clearly older than the line.
bool InodeVisitor::untouched(const InodeItem &now, const InodeItem &then) const {
  return now.ctime == then.ctime && now.sequence == then.sequence &&
         now.ctime.sec + kClockMargin < common_.line_time;
}

// Decides about one inode. If it is a directory, the inodes whose names came or went become pending.
// NULL: the tree does not have the inode.
int InodeVisitor::visit(uint64_t ino, const InodeItem *active, const InodeItem *snapshot) {
  // An inode without a name is only kept because a process has it open: it counts as deleted.
  if (active != nullptr && active->nlink == 0) active = nullptr;
  if (snapshot != nullptr && snapshot->nlink == 0) snapshot = nullptr;
  if (active == nullptr && snapshot == nullptr) return 0;

  unsigned state =
      (active != nullptr ? KEST_DI_ACTIVE : 0) | (snapshot != nullptr ? KEST_DI_SNAPSHOT : 0);
  if (S_ISDIR((active != nullptr ? active : snapshot)->mode)) state |= KEST_DI_DIR;
  if (severalNames(active) || severalNames(snapshot)) state |= KEST_DI_LINKED;
  if (active != nullptr) state |= kindOf(*active);
  if (active != nullptr && snapshot != nullptr && sameIdentity(*active, *snapshot)) {
    if (untouched(*active, *snapshot)) return 0;
    int rc = compareSame(ino, *active, *snapshot, &state);
    if (rc < 0 || (state & (kDiffers | kDoubtful)) == 0) return rc;
    if ((state & kDoubtful) != 0) {
      doubts.add({ino, state & ~kDoubtful});
      return 0;
    }
    state &= ~kDiffers;
    if (rc = noteChange(ino, *active, *snapshot); rc < 0) return rc;
  } else {
    if (active != nullptr && snapshot != nullptr) state |= KEST_DI_REPLACED;
    int rc = 0;
    if (snapshot != nullptr && S_ISDIR(snapshot->mode)) rc = visitChildren(&snapshot_, ino);
    // What only the fileset has was created after the line, and the sweep found it. The exception is a
    // snapshot that was written to: something older may have been deleted there.
    if (rc == 0 && active != nullptr && S_ISDIR(active->mode) && common_.snapshot_changed)
      rc = visitChildren(&active_, ino);
    if (rc == 0 && snapshot != nullptr) rc = noteLost(ino, *snapshot);
    if (rc < 0) return rc;
  }
  return record(ino, state);
}

// Compares an inode that is the same in both trees. Sets kDiffers if it differs in anything that can be
// restored, and kDoubtful if that depends on twins.
int InodeVisitor::compareSame(uint64_t ino, const InodeItem &active, const InodeItem &snapshot,
                              unsigned *state) {
  EntryDifference entries;
  int rc = 0;
  if (S_ISDIR(active.mode))
    rc = diffDirectories(active_.entries, snapshot_.entries, ino, active.size, common_.line,
                         common_.hidden, &entries);
  for (const DirEntry &entry : entries.snapshot) noteHome(ino, entry);
  for (const std::vector<DirEntry> *side : {&entries.snapshot, &entries.active})
    for (const DirEntry &entry : *side)
      if (rc == 0) rc = addPending(entry);
  if (rc < 0) return rc;
  if (!entries.active.empty() || !entries.snapshot.empty()) changes.addEntries(ino, entries);
  if (!pairEntries(ino, entries)) {
    *state |= KEST_DI_ENTRIES | kDiffers;
    return 0;
  }
  if (!entries.active.empty()) *state |= kDoubtful;
  unsigned unequal;
  InodeRecord now{.item = active, .names = {}, .xattrs = {}, .clone_xattrs = {}};
  InodeRecord then{.item = snapshot, .names = {}, .xattrs = {}, .clone_xattrs = {}};
  rc = compareInodes({active_.properties, ino}, &now, {snapshot_.properties, ino}, &then, &unequal);
  if (rc < 0 || unequal == 0) return rc;
  if ((unequal & kOther) != 0)
    *state |= kDiffers;
  else
    *state |= kDoubtful | kRelations;
  if (!S_ISREG(active.mode)) return 0;
  rc = hasXattr(active_.properties, ino, kCloneAttribute);
  if (rc == 0) rc = hasXattr(snapshot_.inodes, ino, kCloneAttribute);
  if (rc > 0) *state |= KEST_DI_CLONE;
  return std::min(rc, 0);
}

// Pairs the entries that only one of the two directories has: two files of one name are candidates for
// twins. Returns true if every entry could be paired. Nested filesets that only the snapshot has are
// ignored.
bool InodeVisitor::pairEntries(uint64_t dir, const EntryDifference &entries) {
  bool all = true;
  visitNamePairs(entries, [&](const DirEntry *now, const DirEntry *then) {
    if (then != nullptr && then->junction) then = nullptr;
    if (now == nullptr && then == nullptr) return;
    if (now == nullptr || then == nullptr || now->junction || now->type != then->type) {
      all = false;
      return;
    }
    candidates.add({then->target, now->target});
    needed.add({dir, then->target});
  });
  return all;
}

int InodeVisitor::noteChange(uint64_t ino, const InodeItem &active, const InodeItem &snapshot) {
  if (changes.full()) return 0;
  kest_change_t change;
  const int rc = describeChange(active_.properties, snapshot_.inodes, ino, active, snapshot, &change);
  if (rc == 0) changes.add(ino, change);
  return rc;
}

int InodeVisitor::noteLost(uint64_t ino, const InodeItem &snapshot) {
  if (S_ISDIR(snapshot.mode) || changes.lostFull()) return 0;
  const int clone = hasXattr(snapshot_.inodes, ino, kCloneAttribute);
  if (clone == 0)
    changes.addLost(ino, {.lo_size = snapshot.size, .lo_regular = S_ISREG(snapshot.mode)});
  return std::min(clone, 0);
}

int InodeVisitor::visitChildren(Side *side, uint64_t dir) {
  DirEntryItem entry;
  for (uint64_t index = 0;; index = entry.index + 1) {
    int rc = nextEntry(side->entries, dir, index, &entry);
    if (rc <= 0) return rc;
    if (side == &snapshot_) noteHome(dir, entry);
    rc = addPending(entry);
    if (rc < 0 || entry.index == UINT64_MAX) return rc;
  }
}

// Directories wait until the sweep has ended, because only they make other inodes pending. Of other
// inodes a limited number waits, so that memory is bounded.
int InodeVisitor::addPending(const DirEntry &entry) {
  if (entry.junction) return 0;
  std::vector<uint64_t> &list = entry.type == DT_DIR ? folders : pending;
  list.push_back(entry.target);
  if (pending.size() < kPendingMost) return 0;
  std::vector<uint64_t> these;
  these.swap(pending);
  sortOnce(&these);
  return visitThese(these.data(), these.data() + these.size());
}

// Remembers where the snapshot has a nested subvolume. `entry` is one that only the snapshot has.
void InodeVisitor::noteHome(uint64_t dir, const DirEntry &entry) {
  if (entry.junction) homes.emplace(entry.target, NameRef{dir, entry.name});
}

int InodeVisitor::record(uint64_t ino, unsigned state) {
  // A file with several names is shown if one of them is outside hidden folders.
  if ((state & KEST_DI_LINKED) == 0 && common_.not_shown.contains(ino)) return 0;
  found.add({ino, state});
  return (state & KEST_DI_ACTIVE) != 0 ? addLeadsTo(ino) : 0;
}

int InodeVisitor::addLeadsTo(uint64_t ino) {
  int rc = visitNames(active_.properties, ino, [&](uint64_t parent, std::string_view) {
    if (parent != ino && !common_.not_shown.contains(parent)) leads.add({parent, ino});
  });
  return std::min(rc, 0);
}

}  // namespace kest
