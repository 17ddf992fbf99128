#include "fsetcompare/link_groups.h"

#include <algorithm>
#include <set>

#include "object/paths.h"
#include "run/run_handles.h"

bool LinkGroups::meet(const struct stat &active, const struct stat &snapshot) {
  if (active.st_nlink <= 1 && snapshot.st_nlink <= 1) return true;
  Group &group = groups_[snapshot.st_ino];
  group.other_count |= active.st_nlink != snapshot.st_nlink;
  const auto [known, first] = partners_.emplace(active.st_ino, snapshot.st_ino);
  if (!first && known->second != snapshot.st_ino) {
    torn_.push_back(known->second);
    torn_.push_back(snapshot.st_ino);
  }
  auto &partners = group.partners;
  if (std::find(partners.begin(), partners.end(), active.st_ino) != partners.end()) return false;
  partners.push_back(active.st_ino);
  return true;
}

void LinkGroups::report(Report *report) const {
  std::set<uint64_t> wrong(torn_.begin(), torn_.end());
  for (const auto &[ino, group] : groups_)
    if (group.other_count || group.partners.size() > 1) wrong.insert(ino);
  for (const uint64_t ino : wrong) {
    std::string path;
    if (Result r = firstPath(handles.oldFsP, ino, &path); !r)
      report->trouble("inode " + std::to_string(ino), r.err);
    else
      report->difference("links", path);
  }
}
