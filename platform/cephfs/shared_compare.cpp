// The part of a comparison that deals with other processes: hands out groups and reads the results.
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <utility>

#include "cephfs/tree_comparison.h"

namespace kest {

namespace {

constexpr size_t kPathMost = 1 << 16;  // bytes; a directory with a longer path stays with this process

void writePairs(PartWriter *part, PartEntry entry, const SortedPairs &pairs) {
  NumberPair one;
  for (SortedPairs::Cursor cursor = pairs.begin(); cursor.next(&one);) {
    part->begin(entry);
    part->number(one.first);
    part->number(one.second);
  }
}

void writeEntries(PartWriter *part, const std::vector<DirEntry> &entries) {
  part->number(entries.size());
  for (const DirEntry &one : entries) {
    part->text(one.name);
    part->number(one.target);
    part->number(one.type);
  }
}

DirEntry readDirEntry(PartReader *part) {
  DirEntry one;
  one.name = part->text();
  one.target = part->number();
  one.type = static_cast<uint8_t>(part->number());
  return one;
}

std::vector<DirEntry> readEntries(PartReader *part) {
  std::vector<DirEntry> entries;
  for (uint64_t count = part->number(); count > 0 && part->error() == 0; --count)
    entries.push_back(readDirEntry(part));
  return entries;
}

}  // namespace

// Returns the path of a directory in the snapshot, from the places that this process knows. It knows
// those of all directories above what it has listed.
std::string TreeComparison::pathInSnapshot(uint64_t ino) {
  std::string path;
  SnapshotPlace place;
  while (ino != snapshot_.ino && snapshot_.client->placeInSnapshot(snapshot_.snapid, ino, &place)) {
    path = path.empty() ? place.name : place.name + "/" + path;
    ino = place.parent;
    if (path.size() > kPathMost) break;
  }
  return path;
}

// Lets other processes compare the remaining directories, and takes over what they find.
int TreeComparison::shareOut() {
  UniqueFd file(division_->open_directories(division_->arg));
  if (!file) return -errno;
  PartWriter writer(file.get());
  writer.number(group_most_);
  writer.number(descending_ ? 1 : 0);
  writer.number(descending_ ? moved_.size() : 0);
  if (descending_)
    for (const uint64_t ino : moved_) writer.number(ino);
  std::vector<kest_group_t> groups;
  std::deque<Folder> own;
  const size_t count = folders_.size(), most = std::min(division_->groups, count);
  for (size_t i = 0; i < most; ++i) {
    kest_group_t group{writer.position(), 0};
    for (size_t left = count * (i + 1) / most - count * i / most; left > 0; --left) {
      Folder folder = std::move(folders_.front());
      folders_.pop_front();
      if (folder.path.empty() && folder.kind != Folder::kNew) folder.path = pathInSnapshot(folder.ino);
      if (folder.path.size() > kPathMost) {
        folder.path.clear();
        own.push_back(std::move(folder));
        continue;
      }
      writer.folder({folder.kind, folder.changed, folder.ino, folder.path});
    }
    group.to = writer.position();
    if (group.to > group.from) groups.push_back(group);
  }
  if (int rc = writer.flush(); rc < 0) return rc;
  // A full pool shows itself only when the data is written back.
  if (fsync(file.get()) != 0) return -errno;
  file.reset();
  group_most_ = std::max(group_most_, std::min(2 * group_most_, kMostGroup));
  if (!own.empty()) alone_ = true;
  folders_ = std::move(own);
  if (groups.empty()) return 0;
  if (division_->compare(division_->arg, groups.data(), groups.size()) != 0) return -errno;
  for (size_t i = 0; i < groups.size(); ++i) {
    UniqueFd part(division_->open_part(division_->arg, i));
    if (!part) return -errno;
    if (int rc = readPart(std::move(part)); rc < 0) return rc;
  }
  return 0;
}

int TreeComparison::readPart(UniqueFd file) {
  PartReader part(std::move(file));
  for (uint64_t entries = 0;; ++entries) {
    const auto entry = static_cast<PartEntry>(part.number());
    if (part.error() == 0 && entry == PartEntry::kEnd && part.number() == entries) return part.error();
    if (part.error() == 0 && !readEntry(&part, entry)) return -EBADMSG;
    if (part.error() != 0) return part.error();
  }
}

bool TreeComparison::readEntry(PartReader *part, PartEntry entry) {
  const auto pair = [part] {
    const uint64_t first = part->number();
    return NumberPair{first, part->number()};
  };
  switch (entry) {
    case PartEntry::kNews:
      news_.add(pair());
      return true;
    case PartEntry::kFound:
      found_.add(pair());
      return true;
    case PartEntry::kLead:
      leads_.add(pair());
      return true;
    case PartEntry::kParent:
      parents_.add(pair());
      return true;
    case PartEntry::kPlace: {
      const NumberPair one = pair();
      snapshot_.client->notePlace(snapshot_.snapid, one.first, {one.second, part->text()});
      return true;
    }
    case PartEntry::kMoved:
      moved_.insert(part->number());
      return true;
    case PartEntry::kUnmatched:
      unmatched_.push_back(part->number());
      return true;
    case PartEntry::kNotes: {
      const uint64_t dir = part->number();
      EntryDifference changed;
      changed.active = readEntries(part);
      changed.snapshot = readEntries(part);
      notes_->addEntries(dir, changed);
      return true;
    }
    case PartEntry::kName: {
      const uint64_t dir = part->number();
      names_->add(dir, readDirEntry(part));
      return true;
    }
    case PartEntry::kNamesLeftOut:
      names_->leaveOut();
      return true;
    case PartEntry::kCandidate: {
      const uint64_t dir = part->number();
      std::string name = part->text();
      if (candidates_.size() < kMostCandidates) candidates_.push_back({dir, std::move(name)});
      return true;
    }
    case PartEntry::kChanged: {
      const NumberPair one = pair();
      changed_dirs_[one.first] = {one.second, part->number() != 0};
      return true;
    }
    case PartEntry::kLeft: {
      SharedFolder left = part->folder();
      if (left.kind > Folder::kNew) return false;
      folders_.push_back({static_cast<Folder::Kind>(left.kind),
                          left.ino,
                          left.changed != 0,
                          {},
                          std::move(left.path)});
      return true;
    }
    case PartEntry::kEnd:
      break;
  }
  return false;
}

int TreeComparison::computeGroup(UniqueFd directories, uint64_t from, uint64_t to, int part) {
  PartReader reader(std::move(directories));
  most_visited_ = reader.number();
  descending_ = reader.number() != 0;
  for (uint64_t count = reader.number(); count > 0 && reader.error() == 0; --count)
    moved_.insert(reader.number());
  reader.seek(from);
  while (reader.error() == 0 && reader.position() < to) {
    SharedFolder one = reader.folder();
    if (one.kind > Folder::kNew) return -EBADMSG;
    folders_.push_back(
        {static_cast<Folder::Kind>(one.kind), one.ino, one.changed != 0, {}, std::move(one.path)});
  }
  if (reader.error() != 0) return reader.error();
  const bool knows_moved = descending_;
  if (int rc = workThrough(); rc < 0) return rc;
  if (knows_moved) moved_.clear();  // the other process knows them already
  return writePart(part);
}

int TreeComparison::writePart(int file) {
  PartWriter part(file);
  const SortedPairs found = found_.finish(), leads = leads_.finish();
  writePairs(&part, PartEntry::kNews, news_.finish());
  writePairs(&part, PartEntry::kFound, found);
  writePairs(&part, PartEntry::kLead, leads);
  for (const uint64_t ino : moved_) {
    part.begin(PartEntry::kMoved);
    part.number(ino);
  }
  for (const uint64_t ino : unmatched_) {
    part.begin(PartEntry::kUnmatched);
    part.number(ino);
  }
  for (Folder &one : folders_) {
    if (one.path.empty() && one.kind != Folder::kNew) one.path = pathInSnapshot(one.ino);
    part.begin(PartEntry::kLeft);
    part.folder({one.kind, one.changed, one.ino, one.path});
  }
  writeChains(&part, found, leads);
  writeNotes(&part);
  const uint64_t entries = part.entries();
  part.begin(PartEntry::kEnd);
  part.number(entries);
  return part.flush();
}

// Writes the parents and places of those directories that a walk may have to enter, or to find in the
// snapshot. It is not known yet which files with several names differ, so all of them count.
void TreeComparison::writeChains(PartWriter *part, const SortedPairs &found, const SortedPairs &leads) {
  const SortedPairs parents = parents_.finish();
  std::vector<uint64_t> step = unmatched_;
  std::unordered_set<uint64_t> climbed, placed;
  NumberPair pair;
  const auto begin = [&step](uint64_t dir) {
    if (step.empty() || step.back() != dir) step.push_back(dir);
  };
  for (SortedPairs::Cursor cursor = found.begin(); cursor.next(&pair);) begin(pair.first);
  for (SortedPairs::Cursor cursor = leads.begin(); cursor.next(&pair);) begin(pair.first);
  for (const Folder &one : folders_) begin(one.ino);
  while (!step.empty()) {
    const uint64_t dir = step.back();
    step.pop_back();
    SnapshotPlace place;
    for (uint64_t at = dir;
         snapshot_.client->placeInSnapshot(snapshot_.snapid, at, &place) && placed.insert(at).second;
         at = place.parent) {
      part->begin(PartEntry::kPlace);
      part->number(at);
      part->number(place.parent);
      part->text(place.name);
    }
    if (!climbed.insert(dir).second || !parents.from({dir, 0}).next(&pair) || pair.first != dir)
      continue;
    part->begin(PartEntry::kParent);
    part->number(pair.first);
    part->number(pair.second);
    step.push_back(pair.second);
  }
}

void TreeComparison::writeNotes(PartWriter *part) {
  for (const auto &[dir, changed] : notes_->directories()) {
    part->begin(PartEntry::kNotes);
    part->number(dir);
    writeEntries(part, changed.active);
    writeEntries(part, changed.snapshot);
  }
  for (const auto &[dir, names] : names_->all()) {
    for (const DirEntry &one : names) {
      part->begin(PartEntry::kName);
      part->number(dir);
      part->text(one.name);
      part->number(one.target);
      part->number(one.type);
    }
  }
  if (!names_->whole()) part->begin(PartEntry::kNamesLeftOut);
  for (const TwinCandidate &one : candidates_) {
    part->begin(PartEntry::kCandidate);
    part->number(one.dir);
    part->text(one.name);
  }
  for (const auto &[dir, changed] : changed_dirs_) {
    part->begin(PartEntry::kChanged);
    part->number(dir);
    part->number(changed.entries);
    part->number(changed.itself ? 1 : 0);
  }
}

}  // namespace kest
