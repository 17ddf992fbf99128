#include "btrfs/directory_listing.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "btrfs/entry_diff.h"

namespace kest {

namespace {

constexpr size_t kBatch = 64 * 1024;

// The directory is listed as a whole if more than one in kEntriesPerLead entries leads to a change. Not
// for kFewLeads or fewer, and not if more than kMostListed would have to be kept.
constexpr uint64_t kEntriesPerLead = 8;
constexpr size_t kFewLeads = 3, kMostListed = 64 * 1024;
constexpr uint64_t kUsualEntry = 20;  // what a name of ten letters adds to a directory's size

bool isDots(const char *name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Calls visit(record) with names, numbers and types in the kernel's order. 0 or -errno.
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

}  // namespace

int listDirectory(const TreeRoot &root, DescriptorInode &dir, const HiddenEntries &hidden, bool dots,
                  EntryList *entries) {
  const int fd = dir.readFd();
  if (fd < 0) return fd;
  const InodeFacts &facts = dir.facts();
  LiveEntries live(root, dir.fd(), facts.ino);
  entries->clear();
  return readRaw(fd, [&](kest_direntx64_t &record) {
    if (isDots(record.d_name)) {
      if (record.d_name[1] == 0) record.d_gen = facts.generation;
      if (dots) entries->add(record);
      return 0;
    }
    if (int hides = hidden.hidesName(facts.ino, record.d_name, record.d_type & 0xff); hides != 0)
      return std::min(hides, 0);
    if (record.d_type == DT_DIR) {
      int there = live.resolve(&record);
      if (there <= 0) return there;
    }
    if ((record.d_flags & KEST_DF_JUNCTION) != 0) {
      int hides = hidden.hidesSubvolume(facts.ino, record.d_name, record.d_ino);
      if (hides != 0) return std::min(hides, 0);
    }
    entries->add(record);
    return 0;
  });
}

int listChangedEntries(const TreeRoot &root, DescriptorInode &dir, const DifferenceSet &set,
                       const ChangeNotes &notes, uint64_t snapshot_id, uint64_t line,
                       EntryList *entries) {
  entries->clear();
  const InodeFacts &facts = dir.facts();
  const DiffInode own = set.find(facts.ino);
  if (!own.alive()) return 0;
  HiddenEntries hidden(root, snapshot_id);
  // A directory that the snapshot does not have is new as a whole.
  if (!own.inSnapshot() || own.replaced()) return listDirectory(root, dir, hidden, false, entries);
  if ((own.state & KEST_DI_ENTRIES) == 0) return 0;
  EntryDifference difference;
  if (const EntryDifference *noted = notes.findEntries(facts.ino); noted != nullptr) {
    difference = *noted;
  } else {
    const int fs = root.fd.get();
    TreeReader active(fs, root.subvol_id, 1), snapshot(fs, snapshot_id, 1);
    int rc = diffDirectories(active, snapshot, facts.ino, facts.size, line, hidden, &difference);
    if (rc < 0) return rc;
  }
  // A twin under its old name is no change of the directory.
  dropPairs(&difference, [&](uint64_t then, uint64_t now) { return set.twinOf(then) == now; });
  LiveEntries live(root, dir.fd(), facts.ino);

  auto takeActive = [&](const DirEntry &entry) {
    kest_direntx64_t record = toRecord(entry);
    int there = live.stillMeans(&record);
    if (there > 0) entries->add(record);
    return there;
  };
  auto takeSnapshot = [&](const DirEntry &entry) {
    kest_direntx64_t record = toRecord(entry);
    int there = live.stillMeans(&record);
    // An entry that has come back is no difference any more, unless its number belongs to another
    // file now.
    if (there < 0 || (there > 0 && (entry.junction || !set.find(entry.target).replaced())))
      return there;
    record.d_type |= KEST_DT_SNAP;
    record.d_gen = 0;
    entries->add(record);
    return 0;
  };
  return visitByName(difference, takeActive, takeSnapshot);
}

LeadListing::LeadListing(const TreeRoot &root, DescriptorInode &dir, const DifferenceSet &set,
                         TreeReader &active)
    : root_(root),
      opened_(dir),
      dir_(dir.facts().ino),
      set_(set),
      active_(active),
      live_(root, dir.fd(), dir_),
      cursor_(set.leadsFrom(dir_)) {
  // Cached items can be older than changes of the run itself.
  active_.forget();
}

int LeadListing::next(const kest_direntx64_t **entry) {
  *entry = nullptr;
  if (!begun_) {
    if (int rc = begin(); rc < 0) return rc;
    begun_ = true;
  }
  for (;;) {
    while (waiting_.empty()) {
      const int rc = takeNext();
      if (rc <= 0) return rc;
    }
    current_ = waiting_.back();
    waiting_.pop_back();
    int rc = needsCheck(current_) ? live_.stillMeans(&current_) : 1;
    if (rc < 0) return rc;
    if (rc == 0) continue;
    *entry = &current_;
    return 0;
  }
}

// A listing by the kernel is current. Only a directory must be checked: a nested subvolume can have the
// number of an inode.
bool LeadListing::needsCheck(const kest_direntx64_t &record) const {
  return !listed_ || record.d_type == DT_DIR;
}

int LeadListing::begin() {
  const uint64_t entries = opened_.facts().size / kUsualEntry;
  size_t leads = 0;
  NumberPair lead;
  for (SortedPairs::Cursor ahead = cursor_; leads <= kMostListed && ahead.next(&lead);) {
    if (lead.first != dir_) break;
    ++leads;
  }
  listed_ = leads > kFewLeads && leads <= kMostListed && leads * kEntriesPerLead > entries;
  return listed_ ? listAll() : 0;
}

int LeadListing::listAll() {
  std::vector<uint64_t> wanted;
  NumberPair lead;
  for (SortedPairs::Cursor ahead = cursor_; ahead.next(&lead) && lead.first == dir_;)
    wanted.push_back(lead.second);
  const int fd = opened_.readFd();
  if (fd < 0) return fd;
  const HiddenEntries hidden(root_, 0);
  const int rc = readRaw(fd, [&](const kest_direntx64_t &record) {
    if (isDots(record.d_name) || !std::binary_search(wanted.begin(), wanted.end(), record.d_ino))
      return 0;
    if (int hides = hidden.hidesName(dir_, record.d_name, record.d_type & 0xff); hides != 0)
      return std::min(hides, 0);
    all_.push_back({.name = record.d_name,
                    .target = record.d_ino,
                    .junction = false,
                    .type = static_cast<uint8_t>(record.d_type)});
    return 0;
  });
  std::stable_sort(all_.begin(), all_.end(),
                   [](const DirEntry &a, const DirEntry &b) { return a.target < b.target; });
  return rc;
}

// Puts the next entries, all of one inode, into waiting_. 1; 0 at the end; or -errno.
int LeadListing::takeNext() {
  NumberPair lead;
  const bool more = cursor_.next(&lead) && lead.first == dir_;
  if (more && lead.second == 0) {
    takeJunctions();
    return 1;
  }
  if (!listed_) {
    if (!more) return 0;
    const int rc = takeInode(lead.second);
    return rc < 0 ? rc : 1;
  }
  if (next_ == all_.size()) return 0;
  waiting_.push_back(toRecord(all_[next_++]));
  return 1;
}

int LeadListing::takeInode(uint64_t ino) {
  InodeItem item;
  int rc = readInode(active_, ino, &item);
  if (rc <= 0) return rc;
  HiddenEntries hidden(root_, 0);
  DirEntry entry;
  entry.target = ino;
  entry.type = IFTODT(item.mode);
  int failed = 0;
  rc = visitNamesIn(active_, ino, dir_, [&](uint64_t, std::string_view name) {
    const int hides = hidden.hidesName(dir_, name, entry.type);
    if (hides < 0) failed = hides;
    if (hides != 0) return;
    entry.name = name;
    waiting_.push_back(toRecord(entry));
  });
  return std::min({rc, failed, 0});
}

void LeadListing::takeJunctions() {
  for (const Junction &one : set_.junctionsIn(dir_))
    waiting_.push_back(
        toRecord({.name = one.name, .target = one.id, .junction = true, .type = DT_DIR}));
}

}  // namespace kest
