#include "libkest/lead_listing.h"

#include <dirent.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>

#include "libkest/c_call.h"
#include "libkest/dir_read.h"
#include "libkest/inode_scan.h"
#include "libkest/tree_diff.h"

namespace kest {

LeadListing::LeadListing(OpenInode *dir, const TreeDiff &diff, TreeReader &active)
    : dir_(dir), diff_(diff), active_(active), check_(*dir), cursor_(diff.leadsFrom(dir->if_inode)) {
  // What was read before may be older than the last changes of the run itself.
  active_.forget();
}

int LeadListing::next(const kest_direntx64_t **entry) {
  *entry = nullptr;
  for (;;) {
    while (waiting_.empty()) {
      NumberPair lead;
      if (!cursor_.next(&lead) || lead.first != dir_->if_inode) return 0;
      int rc = lead.second == 0 ? takeJunctions() : takeInode(lead.second);
      if (rc < 0) return rc;
    }
    current_ = waiting_.back();
    waiting_.pop_back();
    int rc = check_.stillMeans(&current_);
    if (rc < 0) return rc;
    if (rc == 0) continue;
    *entry = &current_;
    return 0;
  }
}

int LeadListing::takeInode(uint64_t ino) {
  InodeItem item;
  int rc = readInode(active_, ino, &item);
  if (rc <= 0) return rc;
  HiddenEntries hidden(*dir_->handle, 0);
  DirEntryItem entry;
  entry.target = ino;
  entry.type = IFTODT(item.mode);
  rc = visitNamesIn(active_, ino, dir_->if_inode, [&](uint64_t, std::string_view name) {
    if (hidden.hidesName(dir_->if_inode, name)) return;
    entry.name = name;
    waiting_.push_back(toRecord(entry));
  });
  return std::min(rc, 0);
}

int LeadListing::takeJunctions() {
  const std::vector<NestedSubvolume> &all = diff_.junctions();
  auto one = std::lower_bound(all.begin(), all.end(), dir_->if_inode,
                              [](const NestedSubvolume &n, uint64_t dir) { return n.dir < dir; });
  for (; one != all.end() && one->dir == dir_->if_inode; ++one) {
    DirEntryItem entry;
    entry.target = one->id;
    entry.subvolume = true;
    entry.type = DT_DIR;
    entry.name = one->name;
    waiting_.push_back(toRecord(entry));
  }
  return 0;
}

}  // namespace kest

using namespace kest;

extern "C" int kest_ireaddirc64(kest_ifile_t *dir, kest_iscan_t *scan, const kest_direntx64_t **entry) {
  return cCall([&] {
    if (entry == nullptr) return -EINVAL;
    *entry = nullptr;
    if (dir == nullptr || dir->if_kind != KEST_IFILE_KIND || !S_ISDIR(dir->if_mode)) return -ENOTDIR;
    if (scan == nullptr || !scan->difference) return -EINVAL;
    OpenInode *file = openInode(dir);
    if (file->leads == nullptr) {
      const TreeDiff *diff;
      int rc = scan->diff(&diff);
      if (rc < 0) return rc;
      file->leads = std::make_unique<LeadListing>(file, *diff, scan->names);
    }
    return file->leads->next(entry);
  });
}
