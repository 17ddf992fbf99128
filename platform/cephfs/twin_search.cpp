#include "cephfs/twin_search.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <string>
#include <unordered_set>

#include "cephfs/inode_compare.h"
#include "cephfs/names.h"

namespace kest {

namespace {

constexpr size_t kNone = SIZE_MAX;

bool isGone(int rc) {
  return rc == -ENOENT || rc == -ESTALE;
}

void sortByName(std::vector<CephEntry> *entries) {
  std::sort(entries->begin(), entries->end(),
            [](const CephEntry &a, const CephEntry &b) { return a.name < b.name; });
}

}  // namespace

bool sameTraits(const CephStat &now, const CephStat &then) {
  return now.stx_mode == then.stx_mode && now.stx_uid == then.stx_uid && now.stx_gid == then.stx_gid &&
         now.stx_rdev == then.stx_rdev && now.stx_mtime.tv_sec == then.stx_mtime.tv_sec &&
         now.stx_mtime.tv_nsec == then.stx_mtime.tv_nsec &&
         (S_ISDIR(now.stx_mode) || (now.stx_nlink == then.stx_nlink && now.stx_size == then.stx_size));
}

size_t TwinSearch::groupOf(size_t node) {
  while (nodes_[node].group != node) node = nodes_[node].group = nodes_[nodes_[node].group].group;
  return node;
}

// Adds the pair of inodes that the two directories have as `name`, without counting the name. *node is
// kNone if one of them does not have the name any more.
int TwinSearch::add(size_t parent, const InodeRef &dir_now, const InodeRef &dir_then,
                    const std::string &name, size_t *node) {
  InodeRef now, then;
  CephStat st_now, st_then;
  *node = kNone;
  int rc = active_.client->lookUp(dir_now, name, &now, &st_now);
  if (rc == 0) rc = snapshot_.client->lookUp(dir_then, name, &then, &st_then);
  if (rc < 0) return isGone(rc) ? 0 : rc;
  const auto [found, fresh] =
      index_.emplace(std::make_pair(st_now.stx_ino, st_then.stx_ino), nodes_.size());
  *node = found->second;
  if (fresh) nodes_.push_back({st_now.stx_ino, st_then.stx_ino, *node});
  if (parent != kNone) nodes_[groupOf(*node)].group = groupOf(parent);
  if (!fresh) return 0;
  rc = judge(*node, now, st_now, then, st_then);
  if (rc < 0 || !nodes_[*node].valid || !S_ISDIR(st_now.stx_mode)) return rc;
  if (st_now.stx_ino != st_then.stx_ino) {
    folders_.push_back({*node, std::move(now), std::move(then)});
    return 0;
  }
  rc = unchangedBelow(*node, std::move(now), std::move(then));
  nodes_[*node].valid = rc > 0;
  return std::min(rc, 0);
}

// Decides whether the two inodes are equal. Leaves the names to conclude(), and what is below a
// directory to listPair() and unchangedBelow().
int TwinSearch::judge(size_t node, const InodeRef &now, const CephStat &st_now, const InodeRef &then,
                      const CephStat &st_then) {
  Node &own = nodes_[node];
  own.valid = false;
  if (!sameTraits(st_now, st_then)) return 0;
  own.links = S_ISDIR(st_now.stx_mode) ? 1 : st_now.stx_nlink;
  if (own.now != own.then) {
    const DiffInode a = difference_.find(own.now), b = difference_.find(own.then);
    if (!a.alive() || a.inSnapshot() || b.alive() || !b.inSnapshot()) return 0;
    // No inode has two twins.
    const auto [one, alone] = of_now_.emplace(own.now, node);
    const auto [other, also_alone] = of_then_.emplace(own.then, node);
    if (!alone || !also_alone) {
      nodes_[one->second].valid = nodes_[other->second].valid = own.valid = false;
      return 0;
    }
  }
  const int rc = sameContents(active_, snapshot_, now, st_now, then, st_then);
  own.valid = rc > 0;
  return std::min(rc, 0);
}

// Compares two directories with different numbers: both must have the same names.
int TwinSearch::listPair(const Pair &pair) {
  std::vector<CephEntry> now, then;
  int rc = active_.client->list(pair.now, &now);
  if (rc == 0) rc = snapshot_.client->list(pair.then, &then);
  if (rc < 0 && !isGone(rc)) return rc;
  sortByName(&now);
  sortByName(&then);
  const bool equal = rc == 0 && std::equal(now.begin(), now.end(), then.begin(), then.end(),
                                           [](const CephEntry &a, const CephEntry &b) {
                                             return a.name == b.name && sameTraits(a.st, b.st);
                                           });
  if (!equal) {
    nodes_[pair.node].valid = false;
    return 0;
  }
  for (const CephEntry &one : now) {
    size_t node;
    if (int added = add(pair.node, pair.now, pair.then, one.name, &node); added < 0) return added;
    if (node == kNone)
      nodes_[pair.node].valid = false;
    else
      ++nodes_[node].met;
  }
  return 0;
}

// Whether a directory of both trees is equal down to the last file: 1, 0 or -errno. Adds pairs that may
// be equal only because of other twins: a name that leads to two numbers, which counts only if it is a
// candidate itself, and a file of the difference, which can have other names in directories that were
// made again.
int TwinSearch::unchangedBelow(size_t top, InodeRef top_now, InodeRef top_then) {
  std::vector<std::pair<InodeRef, InodeRef>> open;
  open.emplace_back(std::move(top_now), std::move(top_then));
  while (!open.empty()) {
    const auto [dir_now, dir_then] = std::move(open.back());
    open.pop_back();
    std::vector<CephEntry> now, then;
    int rc = dir_now && dir_then ? active_.client->list(dir_now, &now, true) : -ENOENT;
    if (rc == 0) rc = snapshot_.client->list(dir_then, &then, true);
    if (rc < 0) return isGone(rc) ? 0 : rc;
    sortByName(&now);
    sortByName(&then);
    if (now.size() != then.size()) return 0;
    for (size_t i = 0; i < now.size(); ++i) {
      CephEntry &here = now[i], &there = then[i];
      const bool one_number = here.st.stx_ino == there.st.stx_ino;
      if (here.name != there.name) return 0;
      if (!one_number || difference_.find(here.st.stx_ino).state != 0) {
        if (!sameTraits(here.st, there.st)) return 0;
        if (one_number && here.dir && there.dir) {
          rc = sameContents(active_, snapshot_, here.dir, here.st, there.dir, there.st);
          if (rc <= 0) return rc;
        } else {
          size_t node;
          rc = add(top, dir_now, dir_then, here.name, &node);
          if (rc < 0) return rc;
          if (node == kNone) return 0;
        }
      }
      if (one_number && here.dir) open.emplace_back(std::move(here.dir), std::move(there.dir));
    }
  }
  return 1;
}

int TwinSearch::search(const std::vector<TwinCandidate> &candidates) {
  for (const TwinCandidate &one : candidates) {
    InodeRef now, then;
    CephStat st;
    int rc = active_.client->byNumber(one.dir, kActive, &now, &st);
    if (rc == 0) rc = findInSnapshot(snapshot_, one.dir, &then, &st);
    size_t node = kNone;
    if (rc == 0) rc = add(kNone, now, then, one.name, &node);
    if (rc < 0 && !isGone(rc)) return rc;
    if (node != kNone) {
      ++nodes_[node].met;
      tops_.emplace_back(one.dir, node);
    }
    while (!folders_.empty()) {
      const Pair pair = std::move(folders_.back());
      folders_.pop_back();
      if (int listed = listPair(pair); listed < 0) return listed;
    }
  }
  return 0;
}

std::unordered_set<uint64_t> TwinSearch::withUnmetNames() const {
  std::unordered_set<uint64_t> inodes;
  for (const Node &node : nodes_)
    if (node.valid && node.now == node.then && node.met < node.links) inodes.insert(node.now);
  return inodes;
}

int TwinSearch::meetNames(uint64_t dir, const std::vector<DirEntry> &names,
                          const std::unordered_set<uint64_t> &inodes) {
  const DiffInode own = difference_.find(dir);
  if (own.state != 0 && !own.inSnapshot()) return 0;
  InodeRef now, then;
  CephStat st;
  int rc = active_.client->byNumber(dir, kActive, &now, &st);
  if (rc == 0) rc = findInSnapshot(snapshot_, dir, &then, &st);
  if (rc < 0) return isGone(rc) ? 0 : rc;
  std::unordered_set<std::string> met;  // a listing may repeat an entry while the directory changes
  for (const DirEntry &one : names) {
    if (!inodes.contains(one.target) || !met.insert(one.name).second) continue;
    InodeRef inode;
    for (const auto &[tree, parent] :
         {std::make_pair(&active_, &now), std::make_pair(&snapshot_, &then)}) {
      if (rc == 0) rc = tree->client->lookUp(*parent, one.name, &inode, &st);
      if (rc == 0 && st.stx_ino != one.target) rc = -ENOENT;
    }
    if (rc < 0 && !isGone(rc)) return rc;
    if (rc == 0) ++nodes_[index_.at({one.target, one.target})].met;
    rc = 0;
  }
  return 0;
}

void TwinSearch::conclude() {
  std::unordered_set<size_t> refused;
  for (size_t i = 0; i < nodes_.size(); ++i)
    if (!nodes_[i].valid || nodes_[i].met != nodes_[i].links) refused.insert(groupOf(i));
  for (size_t i = 0; i < nodes_.size(); ++i) {
    if (refused.contains(groupOf(i))) continue;
    settled_.insert({nodes_[i].now, nodes_[i].then});
    if (nodes_[i].now != nodes_[i].then) twins_.emplace_back(nodes_[i].then, nodes_[i].now);
  }
  for (const auto &[dir, node] : tops_)
    if (!refused.contains(groupOf(node))) ++names_[dir];
}

}  // namespace kest
