// The class that does the comparisons of tree_compare.h.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/unique_fd.h"
#include "cephfs/lead_names.h"
#include "cephfs/scan_part.h"
#include "cephfs/tree_root.h"
#include "cephfs/twin_search.h"
#include "diff/change_notes.h"
#include "diff/difference_set.h"
#include "kest.h"

namespace kest {

// A process returns the rest of its group after a number of directories. That number is doubled from
// round to round, up to this limit, so that a few rounds suffice for any tree.
inline constexpr uint64_t kMostGroup = 1 << 18;
inline constexpr size_t kMostCandidates = 1 << 17;  // for twins; some 10 MiB

// A whole comparison, or the part of one that this process does.
//
// Each directory of the snapshot has one place, so each is compared once, by the process that meets it.
// New directories can be distinguished from moved ones only when all of the snapshot has been compared.
// So directories under names that only the fileset has come last. What a process finds about inodes and
// directories are sets, and the sets of several processes are united.
class TreeComparison {
 public:
  // `difference` may be null in a process that compares a group. `division` is null where this process
  // compares everything.
  TreeComparison(const CephRoot &active, const CephRoot &snapshot, DifferenceSet *difference,
                 ChangeNotes *notes, LeadNames *names, const kest_division_t *division = nullptr)
      : active_(active),
        snapshot_(snapshot),
        difference_(difference),
        notes_(notes),
        names_(names),
        division_(division),
        group_most_(division == nullptr ? 0 : division->most) {}

  int compute();
  uint64_t passedOver() const { return passed_over_; }
  // Compares the directories at [from, to) of the file `directories` and writes what it finds to
  // `part`.
  int computeGroup(UniqueFd directories, uint64_t from, uint64_t to, int part);

 private:
  // A directory to be looked at: in both trees, or in the one that has it.
  struct Folder {
    enum Kind { kPair, kDeleted, kNew } kind = kPair;
    uint64_t ino = 0;
    bool changed = false;  // a pair whose own attributes or place differ
    InodeRef then;         // in the snapshot, looked up by names
    std::string path;      // or its path there, below the root
  };

  // How a directory of both trees with candidates for twins differs.
  struct Changed {
    size_t entries =
        0;  // names that only one of them has, or that mean another inode, which count twice
    bool itself = false;
  };

  int workThrough();
  int workAndShare();
  bool stops() const;
  void work();
  int visit(const Folder &folder);
  int visitPair(const Folder &folder);
  void readMargin();
  int maybePassOver(const Folder &folder, bool *passed);
  int compareEntry(const Folder &folder, const CephEntry &now, CephEntry &then);
  int onlyNow(uint64_t dir, const CephEntry &entry);
  int onlyThen(CephEntry &entry);
  int listActive(uint64_t ino, std::vector<CephEntry> *entries);
  void push(Folder folder);
  void addNews(uint64_t ino, uint64_t news);
  void addParent(uint64_t dir, uint64_t parent);
  void addLead(uint64_t dir, const CephEntry &entry);
  void noteEntries(uint64_t dir, const EntryDifference &changed);
  void addCandidates(uint64_t dir, std::vector<TwinCandidate> candidates, const Changed &changed);
  void recordFolder(uint64_t ino, unsigned state);
  void recordFiles();
  int settleTwins(const SortedPairs &leads);
  int meetSharedNames(const SortedPairs &leads, TwinSearch *search);
  void climb(const SortedPairs &files);
  int openThen(const std::string &path, uint64_t ino, InodeRef *dir);

  // In shared_compare.cpp.
  int shareOut();
  int readPart(UniqueFd part);
  bool readEntry(PartReader *part, PartEntry entry);
  int writePart(int part);
  void writeChains(PartWriter *part, const SortedPairs &found, const SortedPairs &leads);
  void writeNotes(PartWriter *part);
  std::string pathInSnapshot(uint64_t ino);

  const CephRoot &active_, &snapshot_;
  DifferenceSet *difference_;
  ChangeNotes *notes_;
  LeadNames *names_;
  const kest_division_t *division_;
  int64_t unchanged_until_ = 0;  // seconds since 1970; 0: everything is looked at

  std::mutex mutex_;  // protects everything below
  std::condition_variable changed_;
  std::deque<Folder> folders_;
  int busy_ = 0, failure_ = 0;
  uint64_t visited_ = 0;                // directories
  uint64_t passed_over_ = 0;            // directories
  uint64_t most_visited_ = UINT64_MAX;  // after this number, the rest of the group is returned
  uint64_t group_most_;                 // the same for the groups of the next round
  bool alone_ = false;                  // no other process can compare what is left
  bool descending_ = false;             // new directories are being listed: moved_ is complete
  std::unordered_set<uint64_t> moved_;  // directories of both trees that are in another place now
  std::vector<uint64_t> unmatched_;     // directories under names that only the fileset has
  PairSorter news_, found_, leads_, parents_;
  std::vector<TwinCandidate> candidates_;
  std::unordered_map<uint64_t, Changed> changed_dirs_;  // of the candidates
};

}  // namespace kest
