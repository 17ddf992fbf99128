#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

#include "floor_list.h"
#include "tree_files.h"

namespace bench {
namespace {

constexpr unsigned kThreads = 2;
constexpr size_t kChunk = 32;  // calls that a thread takes at a time

class Run {
 public:
  explicit Run(const FloorList &list)
      : list_(list),
        active_(list.dirs.size(), -1),
        snapshot_(list.dirs.size(), -1),
        stages_(stagesOf(list)),
        next_(stages_.size()),
        barrier_(kThreads) {}

  void go() {
    rlimit most;
    bool raised = getrlimit(RLIMIT_NOFILE, &most) == 0;
    most.rlim_cur = most.rlim_max;
    if (!raised || setrlimit(RLIMIT_NOFILE, &most) != 0) fail("limit of descriptors");
    umask(0);
    const char *snapshotRoot = list_.text.c_str();
    snapshotFd_ = open(snapshotRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    activeFd_ = open(snapshotRoot + strlen(snapshotRoot) + 1, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (snapshotFd_ < 0 || activeFd_ < 0) fail("open the trees");
    std::thread other([this] { work(); });
    work();
    other.join();
  }

 private:
  struct Stage {
    size_t from, to;
  };

  // The first stage opens the directories; the others are those of the calls.
  static std::vector<Stage> stagesOf(const FloorList &list) {
    std::vector<Stage> stages = {{0, list.dirs.size()}};
    for (size_t at = 0; at < list.ops.size(); at++) {
      if (at == 0 || list.ops[at].stage != list.ops[at - 1].stage) stages.push_back({at, at});
      stages.back().to = at + 1;
    }
    return stages;
  }

  void work() {
    for (size_t stage = 0; stage < stages_.size(); stage++) {
      const auto [from, to] = stages_[stage];
      for (;;) {
        const size_t start = from + next_[stage].fetch_add(kChunk);
        if (start >= to) break;
        for (size_t at = start; at < std::min(to, start + kChunk); at++)
          stage == 0 ? openDir(at) : perform(list_.ops[at]);
      }
      barrier_.arrive_and_wait();
    }
  }

  void openDir(size_t dir) {
    const FloorDir &paths = list_.dirs[dir];
    if (paths.activePath != kNone) active_[dir] = opened(activeFd_, text(paths.activePath), kFolder);
    if (paths.snapshotPath != kNone)
      snapshot_[dir] = opened(snapshotFd_, text(paths.snapshotPath), kFolder);
  }

  void perform(const FloorOp &op) {
    const char *name = op.name == kNone ? "" : text(op.name);
    const int dir = active_[op.dir];
    switch (op.call) {
      case FloorCall::kUnlink:
        return check(unlinkat(dir, name, 0), "unlink", name);
      case FloorCall::kRename:
        return check(renameat(dir, name, active_[op.otherDir], text(op.otherName)), "rename", name);
      case FloorCall::kMakeDir:
        check(mkdirat(dir, name, op.mode & 01777), "mkdir", name);
        active_[op.otherDir] = opened(dir, name, kFolder);
        return;
      case FloorCall::kRemoveDir:
        close(active_[op.otherDir]);  // an open directory would be freed only at the end
        return check(unlinkat(dir, name, AT_REMOVEDIR), "rmdir", name);
      case FloorCall::kMakeFile:
        return makeFile(op, dir, name);
      case FloorCall::kMakeSymlink:
        check(symlinkat(text(op.otherName), dir, name), "symlink", name);
        return namedAttributes(op, dir, name);
      case FloorCall::kMakeNode:
        check(mknodat(dir, name, op.mode, op.number), "mknod", name);
        return namedAttributes(op, dir, name);
      case FloorCall::kLink:
        return check(linkat(dir, name, active_[op.otherDir], text(op.otherName), 0), "link", name);
      case FloorCall::kChangeFile:
        return changeFile(op, dir, name);
      case FloorCall::kDirAttributes:
        return attributes(op, dir, "a directory");
    }
  }

  void makeFile(const FloorOp &op, int dir, const char *name) {
    const int fd = opened(dir, name, O_CREAT | O_EXCL | O_WRONLY, op.mode & 07777);
    if (op.otherDir != kNone) {
      const int source = opened(snapshot_[op.otherDir], text(op.otherName), O_RDONLY);
      check(ioctl(fd, FICLONE, source), "clone", name);
      close(source);
    }
    attributes(op, fd, name);
    check(close(fd), "close", name);
  }

  void changeFile(const FloorOp &op, int dir, const char *name) {
    if (op.ranges == 0 && !(op.what & kCut) && op.xattrs == 0) return namedAttributes(op, dir, name);
    const bool isData = op.ranges > 0 || (op.what & kCut);
    const int fd = opened(dir, name, isData ? O_WRONLY : O_RDONLY);
    if (op.what & kCut) check(ftruncate(fd, static_cast<off_t>(op.number)), "truncate", name);
    if (op.ranges > 0) {
      const int source = opened(snapshot_[op.otherDir], text(op.otherName), O_RDONLY);
      for (uint32_t i = 0; i < op.ranges; i++) {
        const FloorRange &range = list_.ranges[op.firstRange + i];
        file_clone_range clone{source, range.offset, range.length, range.offset};
        check(ioctl(fd, FICLONERANGE, &clone), "clone a range of", name);
      }
      close(source);
    }
    attributes(op, fd, name);
    check(close(fd), "close", name);
  }

  // The order matters: chown clears set-user-ID, and an ACL changes the mode.
  void attributes(const FloorOp &op, int fd, const char *name) {
    if (op.what & kOwner) check(fchown(fd, op.uid, op.gid), "chown", name);
    for (uint32_t i = 0; i < op.xattrs; i++) {
      const FloorXattr &xattr = list_.xattrs[op.firstXattr + i];
      check(xattr.value == kNone ? fremovexattr(fd, text(xattr.name))
                                 : fsetxattr(fd, text(xattr.name), text(xattr.value), xattr.length, 0),
            "extended attribute of", name);
    }
    if (op.what & kMode) check(fchmod(fd, op.mode & 07777), "chmod", name);
    const timespec times[2] = {{0, UTIME_OMIT}, {op.seconds, op.nanoseconds}};
    if (op.what & kTimes) check(futimens(fd, times), "times of", name);
  }

  void namedAttributes(const FloorOp &op, int dir, const char *name) {
    if (op.what & kOwner)
      check(fchownat(dir, name, op.uid, op.gid, AT_SYMLINK_NOFOLLOW), "chown", name);
    if ((op.what & kMode) && !S_ISLNK(op.mode))
      check(fchmodat(dir, name, op.mode & 07777, 0), "chmod", name);
    const timespec times[2] = {{0, UTIME_OMIT}, {op.seconds, op.nanoseconds}};
    if (op.what & kTimes) check(utimensat(dir, name, times, AT_SYMLINK_NOFOLLOW), "times of", name);
  }

  static int opened(int dir, const char *name, int flags, mode_t mode = 0) {
    const int fd = openat(dir, name, flags | O_NOFOLLOW | O_CLOEXEC, mode);
    check(fd < 0 ? -1 : 0, "open", name);
    return fd;
  }

  // The other thread may wait at the barrier, so end the process at once.
  static void check(int result, const char *what, const char *name) {
    if (result == 0) return;
    fprintf(stderr, "bench_floor: %s %s: %s\n", what, name, strerror(errno));
    _exit(1);
  }

  const char *text(uint32_t at) const { return list_.text.data() + at; }

  static constexpr int kFolder = O_RDONLY | O_DIRECTORY;
  const FloorList &list_;
  std::vector<int> active_, snapshot_;  // open directories by index in the list; -1: not open
  int activeFd_ = -1, snapshotFd_ = -1;
  std::vector<Stage> stages_;
  std::vector<std::atomic<size_t>> next_;  // first index that no thread has taken, by stage
  std::barrier<> barrier_;
};

}  // namespace

void runFloor(const FloorList &list) {
  Run(list).go();
}

}  // namespace bench
