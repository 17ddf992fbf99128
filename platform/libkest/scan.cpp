#include "libkest/scan.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "filesystem/error_text.h"
#include "libkest/c_call.h"

namespace kest {

namespace {

// 0 or -errno. *attr is NULL after the last inode.
int nextDifferent(kest_iscan *scan, uint64_t end_ino, const kest_iattr64_t **attr) {
  Difference *difference;
  int rc = differenceOf(scan, &difference);
  if (rc < 0) return rc;
  const DifferenceSet &set = difference->set();
  if (scan->cursor_ino != scan->next_ino) scan->cursor = set.inodesFrom(scan->next_ino);
  scan->cursor_ino = UINT64_MAX;
  const DiffInode one = set.next(&scan->cursor);
  if (one.ino == 0 || one.ino > end_ino) return 0;
  scan->cursor_ino = one.ino + 1;
  scan->attr = {};
  scan->attr.ia_inode = one.ino;
  scan->attr.ia_nlink = one.alive() ? 1 : 0;
  *attr = &scan->attr;
  return 0;
}

int nextInode(kest_iscan *scan, uint64_t end_ino, const kest_iattr64_t **attr) {
  *attr = nullptr;
  if (scan->next_ino > end_ino) return 0;
  int rc;
  if (scan->difference != nullptr) {
    rc = nextDifferent(scan, end_ino, attr);
  } else {
    rc = scan->all->next(scan->next_ino, end_ino, &scan->attr);
    if (rc > 0) *attr = &scan->attr;
  }
  if (rc < 0) return rc;
  if (*attr != nullptr) scan->next_ino = scan->attr.ia_inode + 1;
  return 0;
}

int statDifferent(kest_iscan *scan, uint64_t ino, uint64_t term_ino, const kest_iattr64_t **attr) {
  Difference *difference;
  int rc = differenceOf(scan, &difference);
  if (rc < 0) return rc;
  const DifferenceSet &set = difference->set();
  DiffInode one = set.firstFrom(ino);
  while (one.ino != 0 && one.ino < term_ino && !one.alive()) one = set.firstFrom(one.ino + 1);
  if (one.ino == 0 || one.ino >= term_ino) return 0;
  rc = difference->readAttributes(one, &scan->attr);
  if (rc == 0) *attr = &scan->attr;
  return rc;
}

int openScan(kest_fssnap_handle *handle, const kest_snapid_t *prev, uint64_t *max_ino,
             std::unique_ptr<kest_iscan> *opened) {
  if (handle == nullptr) return -EINVAL;
  const Tree &tree = *handle->tree;
  auto scan = std::make_unique<kest_iscan>();
  int rc = 0;
  if (prev != nullptr)
    rc = tree.openDifference(*prev, &scan->difference);
  else
    scan->all = tree.openScan();
  if (rc == 0 && max_ino != nullptr) rc = tree.largestInode(prev, max_ino);
  if (rc == 0) *opened = std::move(scan);
  return rc;
}

}  // namespace

int differenceOf(kest_iscan *scan, Difference **difference) {
  if (scan == nullptr || scan->difference == nullptr) return -EINVAL;
  if (!scan->computed) {
    const int rc = scan->difference->compute();
    if (rc < 0)
      return failWith(-rc, std::string("comparing with the snapshot failed: ") + strerror(-rc));
    scan->computed = true;
  }
  *difference = scan->difference.get();
  return 0;
}

}  // namespace kest

using namespace kest;

extern "C" {

kest_iscan_t *kest_open_inodescan64(kest_fssnap_handle_t *handle, const kest_snapid_t *prev,
                                    uint64_t *max_ino) {
  std::unique_ptr<kest_iscan> scan;
  cCall([&] {
    setErrorText("");
    return openScan(handle, prev, max_ino, &scan);
  });
  return scan.release();
}

void kest_close_inodescan(kest_iscan_t *scan) {
  int saved = errno;
  delete scan;
  errno = saved;
}

int kest_next_inode64(kest_iscan_t *scan, uint64_t end_ino, const kest_iattr64_t **attr) {
  return cCall([&] {
    if (scan == nullptr || attr == nullptr) return -EINVAL;
    return nextInode(scan, end_ino, attr);
  });
}

int kest_idifference(kest_iscan_t *scan, uint64_t ino) {
  return cCall([&] {
    Difference *difference;
    int rc = differenceOf(scan, &difference);
    return rc < 0 ? rc : static_cast<int>(difference->set().find(ino).state & kDiffPublic);
  });
}

int kest_twin(kest_iscan_t *scan, uint64_t ino, uint64_t *active) {
  return cCall([&] {
    if (active == nullptr) return -EINVAL;
    Difference *difference;
    int rc = differenceOf(scan, &difference);
    if (rc == 0) *active = difference->set().twinOf(ino);
    return rc;
  });
}

int64_t kest_difference_size(kest_iscan_t *scan) {
  int64_t size = 0;
  const int rc = cCall([&] {
    Difference *difference;
    if (int failed = differenceOf(scan, &difference); failed < 0) return failed;
    size = static_cast<int64_t>(difference->set().size());
    return 0;
  });
  return rc < 0 ? rc : size;
}

int kest_divide_difference(kest_iscan_t *scan, const kest_division_t *division) {
  return cCall([&] {
    const bool valid = scan != nullptr && scan->difference != nullptr && !scan->computed &&
                       division != nullptr && division->groups > 0 && division->compare != nullptr &&
                       division->open_directories != nullptr && division->open_part != nullptr;
    return valid ? scan->difference->divide(*division) : -EINVAL;
  });
}

int kest_compare_group(kest_iscan_t *scan, int directories, const kest_group_t *group, int part) {
  return cCall([&] {
    if (scan == nullptr || scan->difference == nullptr || group == nullptr) return -EINVAL;
    return scan->difference->compareGroup(directories, *group, part);
  });
}

int64_t kest_passed_over(kest_iscan_t *scan) {
  int64_t count = 0;
  const int rc = cCall([&] {
    Difference *difference;
    if (int failed = differenceOf(scan, &difference); failed < 0) return failed;
    count = static_cast<int64_t>(difference->passedOver());
    return 0;
  });
  return rc < 0 ? rc : count;
}

int kest_leads_to_change(kest_iscan_t *scan, uint64_t ino) {
  return cCall([&] {
    Difference *difference;
    int rc = differenceOf(scan, &difference);
    return rc < 0 ? rc : difference->set().find(ino).alive() || difference->set().leads(ino);
  });
}

int kest_junction_home(kest_iscan_t *scan, uint64_t id, uint64_t *dir, char *name) {
  return cCall([&] {
    if (dir == nullptr || name == nullptr) return -EINVAL;
    Difference *difference;
    if (int rc = differenceOf(scan, &difference); rc < 0) return rc;
    const Junction *junction = difference->set().junction(id);
    if (junction == nullptr || junction->home_dir == 0) return 0;
    *dir = junction->home_dir;
    name[junction->home_name.copy(name, 255)] = '\0';
    return 1;
  });
}

int kest_stat_inode64(kest_iscan_t *scan, uint64_t ino, uint64_t term_ino,
                      const kest_iattr64_t **attr) {
  return cCall([&] {
    if (scan == nullptr || attr == nullptr) return -EINVAL;
    *attr = nullptr;
    if (scan->difference != nullptr) return statDifferent(scan, ino, term_ino, attr);
    int rc = scan->all->nextNow(ino, term_ino, &scan->attr);
    if (rc > 0) *attr = &scan->attr;
    return std::min(rc, 0);
  });
}

int kest_ichange(kest_iscan_t *scan, uint64_t ino, kest_change_t *change) {
  return cCall([&] {
    Difference *difference;
    int rc = differenceOf(scan, &difference);
    if (rc < 0 || change == nullptr) return rc < 0 ? rc : -EINVAL;
    return difference->readChange(ino, change);
  });
}

int kest_ilost(kest_iscan_t *scan, uint64_t ino, kest_lost_t *lost) {
  int known = 0;
  const int rc = cCall([&] {
    Difference *difference;
    int failed = differenceOf(scan, &difference);
    if (failed < 0 || lost == nullptr) return failed < 0 ? failed : -EINVAL;
    known = difference->readLost(ino, lost);
    return std::min(known, 0);
  });
  return rc < 0 ? rc : known;
}

int kest_mount_in_the_way(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                          kest_iscan_t *scan, char *point, size_t size) {
  return cCall([&] {
    if (active == nullptr || snap == nullptr || point == nullptr || size == 0) return -EINVAL;
    Difference *difference = nullptr;
    if (int failed = differenceOf(scan, &difference); difference == nullptr) return failed;
    std::string found;
    const int rc = active->tree->findMountInTheWay(*snap->tree, *difference, &found);
    if (rc > 0) point[found.copy(point, size - 1)] = '\0';
    return rc;
  });
}

int kest_find_obstacles(const kest_fssnap_handle_t *active, const kest_fssnap_handle_t *snap,
                        kest_iscan_t *scan, void (*visit)(void *arg, unsigned kind, const char *path),
                        void *arg) {
  return cCall([&] {
    if (active == nullptr || snap == nullptr || visit == nullptr) return -EINVAL;
    Difference *difference;
    const int rc = differenceOf(scan, &difference);
    if (rc < 0) return rc;
    return active->tree->findObstacles(
        *snap->tree, difference,
        [&](unsigned kind, const std::string &path) { visit(arg, kind, path.c_str()); });
  });
}

}  // extern "C"
