// Comparing the entries of a directory with those of its snapshot.
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
  uint64_t target = 0;    // inode number; of a junction, the number of its fileset
  bool junction = false;  // a nested fileset is linked here
  uint8_t type = 0;       // DT_*
};

// Entries that only one of two directories has. A name that means another object is in both lists.
struct EntryDifference {
  std::vector<DirEntry> active, snapshot;  // by name
};

// Sorts both lists and drops the entries that are in both of them. `same`(ino) says whether the inode
// of this number is the same file in both trees: 1, 0 or -errno. 0 or -errno.
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

// Visits both lists by name; of one name, the active entry comes first. Ends with the first answer
// below 0 of a visitor. 0, or that answer.
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
