// Compares the entries of a directory with those of its snapshot.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace kest {

struct DirEntry {
  std::string name;
  uint64_t target = 0;    // inode number, or the id of a junction's fileset
  bool junction = false;  // a nested fileset is linked here
  uint8_t type = 0;       // DT_*
};

// Entries that only one of two directories has. A name that leads to different objects is in both
// lists.
struct EntryDifference {
  std::vector<DirEntry> active, snapshot;  // sorted by name
};

// Sorts both lists and drops entries that are in both. `same`(ino) returns whether the inode of this
// number is the same file in both trees: 1, 0 or -errno. 0 or -errno.
template <typename Same>
int dropCommonEntries(EntryDifference *difference, Same same) {
  const auto less = [](const DirEntry &a, const DirEntry &b) {
    return std::tie(a.name, a.target, a.junction) < std::tie(b.name, b.target, b.junction);
  };
  std::sort(difference->active.begin(), difference->active.end(), less);
  std::sort(difference->snapshot.begin(), difference->snapshot.end(), less);
  EntryDifference only;
  auto now = difference->active.begin(), now_end = difference->active.end();
  auto then = difference->snapshot.begin(), then_end = difference->snapshot.end();
  while (now != now_end || then != then_end) {
    if (then == then_end || (now != now_end && less(*now, *then))) {
      only.active.push_back(std::move(*now++));
    } else if (now == now_end || less(*then, *now)) {
      only.snapshot.push_back(std::move(*then++));
    } else {
      const int rc = now->junction ? 1 : same(now->target);
      if (rc < 0) return rc;
      if (rc == 0) {
        only.active.push_back(std::move(*now));
        only.snapshot.push_back(std::move(*then));
      }
      ++now;
      ++then;
    }
  }
  *difference = std::move(only);
  return 0;
}

// Calls visit(active, snapshot) for every name with the entries of both lists; NULL where one has none.
template <typename Visit>
void visitNamePairs(const EntryDifference &difference, Visit visit) {
  auto now = difference.active.begin(), now_end = difference.active.end();
  auto then = difference.snapshot.begin(), then_end = difference.snapshot.end();
  while (now != now_end || then != then_end) {
    const bool from_now = now != now_end && (then == then_end || now->name <= then->name);
    const bool from_then = then != then_end && (now == now_end || then->name <= now->name);
    visit(from_now ? &*now : nullptr, from_then ? &*then : nullptr);
    now += from_now;
    then += from_then;
  }
}

// Drops every name under which both have an object, neither a junction, for which same(snapshot's
// number, active number) returns true.
template <typename Same>
void dropPairs(EntryDifference *difference, Same same) {
  EntryDifference left;
  visitNamePairs(*difference, [&](const DirEntry *now, const DirEntry *then) {
    if (now != nullptr && then != nullptr && !now->junction && !then->junction &&
        same(then->target, now->target))
      return;
    if (now != nullptr) left.active.push_back(*now);
    if (then != nullptr) left.snapshot.push_back(*then);
  });
  *difference = std::move(left);
}

// Visits both lists in the order of names; of equal names, the active entry comes first. Stops when a
// visitor returns a negative number, and returns that; else 0.
template <typename VisitActive, typename VisitSnapshot>
int visitByName(const EntryDifference &difference, VisitActive visit_active,
                VisitSnapshot visit_snapshot) {
  auto now = difference.active.begin(), now_end = difference.active.end();
  auto then = difference.snapshot.begin(), then_end = difference.snapshot.end();
  int rc = 0;
  while (rc >= 0 && (now != now_end || then != then_end)) {
    if (then == then_end || (now != now_end && now->name <= then->name))
      rc = visit_active(*now++);
    else
      rc = visit_snapshot(*then++);
  }
  return rc < 0 ? rc : 0;
}

}  // namespace kest
