#include "btrfs/obstacles.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/leases.h"
#include "base/threads.h"
#include "btrfs/attributes.h"
#include "btrfs/extent_diff.h"
#include "btrfs/file_handle.h"
#include "btrfs/inode_flags.h"
#include "btrfs/inode_names.h"
#include "btrfs/tree_items.h"
#include "filesystem/running_programs.h"

namespace kest {

namespace {

enum class Use { kFree, kRuns, kSwap, kForbidden, kUnknown };

// Inodes that are examined together, and the number from which on it pays to start threads for them.
constexpr size_t kChunk = 8192, kWorthThreads = 512;

// 1: the file system is mounted without ACLs; 0; or -errno.
int lacksAcls(int fd) {
  if (fgetxattr(fd, "system.posix_acl_access", nullptr, 0) >= 0 || errno == ENODATA) return 0;
  return errno == EOPNOTSUPP ? 1 : -errno;
}

class Obstacles {
 public:
  Obstacles(const TreeRoot &active, const TreeRoot &snapshot, Difference *difference,
            const ObstacleVisitor &visit)
      : root_(active),
        snapshot_root_(snapshot),
        active_(active.fd.get(), active.subvol_id),
        snapshot_(active.fd.get(), snapshot.subvol_id),
        extents_now_(active.fd.get(), active.subvol_id),
        extents_then_(active.fd.get(), snapshot.subvol_id),
        difference_(difference),
        visit_(visit) {}

  int find() {
    const int no_acls = lacksAcls(root_.fd.get());
    if (no_acls < 0) return no_acls;
    look_for_acls_ = no_acls > 0;
    leased_ = leasedInodes();
    const DifferenceSet &set = difference_->set();
    SortedPairs::Cursor cursor = set.inodesFrom(0);
    std::vector<Question> some;
    for (DiffInode one = set.next(&cursor); one.ino != 0; one = set.next(&cursor)) {
      some.push_back({one});
      if (some.size() < kChunk) continue;
      if (int rc = lookAtSome(&some); rc < 0) return rc;
    }
    return lookAtSome(&some);
  }

 private:
  // An inode of the difference, and how it is used if that matters.
  struct Question {
    DiffInode one;
    Use use = Use::kFree;

    bool same() const { return one.alive() && one.inSnapshot() && !one.replaced(); }
    // Only a file without copy-on-write can be swap space. A program that will only be removed can keep
    // running.
    bool mayBeSwap() const { return (one.state & kDiffNoCow) != 0; }
    bool matters() const {
      return one.alive() && (one.state & kDiffRegular) != 0 && (same() || mayBeSwap());
    }
  };

  // Opens the files in as many threads as are useful, then looks at the answers in order.
  int lookAtSome(std::vector<Question> *some) {
    const size_t count = some->size(), threads = count < kWorthThreads ? 1 : usefulThreads();
    const int rc = inThreads(threads, [&](size_t thread) {
      for (size_t i = count * thread / threads; i < count * (thread + 1) / threads; ++i)
        if (Question &one = (*some)[i]; one.matters()) one.use = useOf(one.one.ino, one.mayBeSwap());
      return 0;
    });
    if (rc < 0) return rc;
    for (const Question &question : *some)
      if (int looked = lookAt(question); looked < 0) return looked;
    some->clear();
    return 0;
  }

  int lookAt(const Question &question) {
    const DiffInode &one = question.one;
    const bool same = question.same();
    if (question.matters())
      if (int rc = lookAtUse(one.ino, same, question.use); rc < 0) return rc;
    if (one.inSnapshot() && leased_.contains(one.ino))
      if (int rc = tellHolder(one.ino); rc < 0) return rc;
    return look_for_acls_ ? lookForAcl(one, same) : 0;
  }

  // Starts breaking the lease on a file of the snapshot. Does not wait, so that the time runs for all
  // holders at once.
  int tellHolder(uint64_t ino) {
    InodeItem then;
    if (int rc = readInode(snapshot_, ino, &then); rc <= 0) return rc;
    if (!S_ISREG(then.mode)) return 0;  // the leased file with this number is in another tree
    const UniqueFd fd(openEvenNameless(root_.fd.get(), snapshot_root_.subvol_id, ino,
                                       static_cast<uint32_t>(then.generation),
                                       O_RDONLY | O_NONBLOCK | O_NOATIME));
    return 0;
  }

  // `same`: the snapshot has this file, too.
  int lookAtUse(uint64_t ino, bool same, Use use) {
    switch (use) {
      case Use::kSwap:
        return report(KEST_OB_SWAP, ino, root_);
      case Use::kRuns:
        return same ? lookAtProgram(ino) : 0;
      case Use::kForbidden:
        // The kernel refuses to open an immutable or append-only file for writing, whether it is
        // running or not.
        if (!running_) running_ = runningPrograms(root_.device);
        return same && running_->contains(ino) ? lookAtProgram(ino) : 0;
      default:
        return 0;
    }
  }

  // Finds out by trying to open the file for writing. That also starts breaking a lease on it.
  Use useOf(uint64_t ino, bool may_be_swap) const {
    const UniqueFd fd(openEvenNameless(root_.fd.get(), root_.subvol_id, ino, 0, O_WRONLY | O_NONBLOCK));
    if (fd) {
      // No file can be so large, so the request always fails, and for swap space with its own error.
      constexpr off_t kTooFar = INT64_MAX;
      if (may_be_swap && fallocate(fd.get(), FALLOC_FL_KEEP_SIZE, kTooFar, kTooFar) != 0 &&
          errno == ETXTBSY)
        return Use::kSwap;
      return Use::kFree;
    }
    if (fd.get() == -ETXTBSY) return Use::kRuns;
    return fd.get() == -EPERM ? Use::kForbidden : Use::kUnknown;
  }

  // A running program matters only if the restore would have to write to it.
  int lookAtProgram(uint64_t ino) {
    InodeItem now, then;
    int found = readInode(active_, ino, &now);
    if (found > 0) found = readInode(snapshot_, ino, &then);
    if (found <= 0) return found;
    if (now.size == then.size && sharesInPlace(then.flags, now.flags)) {
      std::vector<FileRange> ranges;
      const int rc = diffExtents(extents_now_, extents_then_, ino, 0, now.size, 1, &ranges);
      if (rc < 0 || ranges.empty()) return rc;
    }
    difference_->noteRunning(ino);
    return report(KEST_OB_RUNS, ino, root_);
  }

  // Looks for ACLs until the first one is found, which is enough for a refusal.
  int lookForAcl(const DiffInode &one, bool same) {
    int has = 0;
    if (one.inSnapshot()) has = hasAcl(snapshot_, one.ino);
    if (has == 0 && same) has = hasAcl(active_, one.ino);
    if (has <= 0) return has;
    look_for_acls_ = false;
    return report(KEST_OB_ACL, one.ino, same ? root_ : snapshot_root_);
  }

  static int hasAcl(TreeReader &tree, uint64_t ino) {
    std::vector<XattrItem> xattrs;
    const int rc = readXattrs(tree, ino, &xattrs);
    if (rc <= 0) return rc;
    return std::any_of(xattrs.begin(), xattrs.end(),
                       [](const XattrItem &one) { return factOfXattr(one.name) == KEST_HAS_ACL; });
  }

  int report(unsigned kind, uint64_t ino, const TreeRoot &where) const {
    InodeNames names;
    const int rc = findInodeNames(where.fd.get(), where.subvol_id, ino, !where.isSnapshot(), &names);
    if (rc < 0) return rc;
    std::string path = root_.path == "/" ? "" : root_.path;
    if (names.paths.empty())
      path += "/?";  // it has just lost its last name
    else if (!names.paths.front().empty())
      path += "/" + names.paths.front();
    visit_(kind, path);
    return 0;
  }

  const TreeRoot &root_, &snapshot_root_;
  TreeReader active_, snapshot_, extents_now_, extents_then_;
  Difference *difference_;
  const ObstacleVisitor &visit_;
  bool look_for_acls_ = false;
  std::unordered_set<uint64_t> leased_;
  std::optional<std::unordered_set<uint64_t>> running_;
};

}  // namespace

int findObstacles(const TreeRoot &active, const TreeRoot &snapshot, Difference *difference,
                  const ObstacleVisitor &visit) {
  return Obstacles(active, snapshot, difference, visit).find();
}

}  // namespace kest
