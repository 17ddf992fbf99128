#include "fsetcompare/object_state.h"

#include <limits.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>

#include <cstdio>
#include <map>
#include <string_view>
#include <vector>

#include "base/fd_path.h"
#include "base/unique_fd.h"
#include "fsetcompare/extent_map.h"
#include "fsetcompare/real_file.h"
#include "run/run_handles.h"

namespace {

using Xattrs = std::map<std::string, std::string>;

// These hold the relation between clones, which compareClones compares.
constexpr std::string_view kOwnAttributes = "trusted.kest.";

constexpr int kAttributes = 32;  // selects what kest_igetattrsx returns

struct FlagName {
  int bit;
  const char *name;
};
constexpr FlagName kFlags[] = {
    {FS_IMMUTABLE_FL, "immutable"}, {FS_APPEND_FL, "append-only"}, {FS_NOATIME_FL, "no-atime"},
    {FS_NODUMP_FL, "no-dump"},      {FS_SYNC_FL, "sync"},          {FS_DIRSYNC_FL, "dirsync"},
    {FS_NOCOW_FL, "nocow"},         {FS_COMPR_FL, "compressed"},   {FS_NOCOMP_FL, "uncompressed"}};

struct ObjectState {
  struct stat st {};
  int flags = 0;
  Xattrs xattrs;
  bool too_many = false;  // more names than the kernel can list
};

Result readValue(const char *object, const char *name, std::string *value) {
  for (;;) {
    const ssize_t size = getxattr(object, name, nullptr, 0);
    if (size < 0) return failedErrno(0);
    value->resize(static_cast<size_t>(size));
    const ssize_t got = getxattr(object, name, value->data(), value->size());
    if (got < 0 && errno == ERANGE) continue;
    if (got < 0) return failedErrno(0);
    value->resize(static_cast<size_t>(got));
    return {};
  }
}

Result readXattrs(int fd, ObjectState *state) {
  const FdPath object(fd);
  static std::vector<char> names(XATTR_LIST_MAX);
  const ssize_t length = listxattr(object.get(), names.data(), names.size());
  if (length < 0 && (errno == E2BIG || errno == ERANGE)) {
    state->too_many = true;
    return {};
  }
  if (length < 0) return errno == EOPNOTSUPP ? Result{} : failedErrno(0);
  for (const char *name = names.data(); name < names.data() + length;
       name += std::string_view(name).size() + 1) {
    if (std::string_view(name).starts_with(kOwnAttributes)) continue;
    std::string value;
    const Result r = readValue(object.get(), name, &value);
    if (r.err == ENODATA) continue;  // removed since it was listed
    if (!r) return r;
    state->xattrs.emplace(name, std::move(value));
  }
  return {};
}

Result readFlags(const kest_ifile_t *file, int *flags) {
  *flags = 0;
  if (!isRegular(file->if_mode) && !isDirectory(file->if_mode)) return {};
  UniqueFd fd;
  if (Result r = openForReading(file, &fd); !r) return r;
  const Result r = called(ioctl(fd.get(), FS_IOC_GETFLAGS, flags));
  const bool none = r.err == ENOTTY || r.err == EINVAL || r.err == EOPNOTSUPP;
  return none ? Result{} : r;  // these errors mean that the file system has no flags
}

Result readState(const kest_ifile_t *file, ObjectState *state) {
  const UniqueFd fd(kest_path_descriptor(file));
  if (!fd) return failedErrno(0);
  if (Result r = called(fstat(fd.get(), &state->st)); !r) return r;
  if (Result r = readXattrs(fd.get(), state); !r) return r;
  return readFlags(file, &state->flags);
}

std::string octal(uint32_t mode) {
  char text[16];
  snprintf(text, sizeof text, "%04o", mode & 07777);
  return text;
}

std::string timeText(const timespec &time) {
  char text[48];
  snprintf(text, sizeof text, "%lld.%09ld", static_cast<long long>(time.tv_sec), time.tv_nsec);
  return text;
}

// The kernel sets the no-compression flag, which users set as well, on a file whose data did not
// shrink. Its own mark is no difference. It can only be on a file that was written since the snapshot:
// if the file shares all its blocks with the snapshot's, or has none, a user set the flag.
Result leaveOutKernelsMark(kest_ifile_t *active, kest_ifile_t *snapshot, int64_t size,
                           const ObjectState &then, ObjectState *now) {
  if (!isRegular(active->if_mode) || (now->flags & ~then.flags & FS_NOCOMP_FL) == 0) return {};
  std::vector<Extent> mine, theirs;
  if (Result r = readExtentMap(active, &mine); !r) return r;
  if (Result r = readExtentMap(snapshot, &theirs); !r) return r;
  std::erase_if(mine, [](const Extent &one) { return !one.placed; });
  if (firstMissing(dataRanges(mine, size), sharedRanges(mine, theirs)) >= 0)
    now->flags &= ~FS_NOCOMP_FL;
  return {};
}

std::string flagsText(int flags) {
  std::string text;
  for (const FlagName &flag : kFlags)
    if (flags & flag.bit) text += (text.empty() ? "" : ",") + std::string(flag.name);
  return text.empty() ? "none" : text;
}

// For an object with more attributes than the kernel can list, the library decides whether they differ.
Result compareAllXattrs(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                        Report *report) {
  std::vector<char> blobs[2];
  kest_ifile_t *const files[2] = {active, snapshot};
  for (int i = 0; i < 2; ++i) {
    int size = 0;
    const Result measured = called(kest_igetattrsx(files[i], kAttributes, nullptr, 0, &size));
    if (!measured && measured.err != ENOSPC) return measured;
    blobs[i].resize(static_cast<size_t>(size));
    if (size == 0) continue;
    if (Result r = called(kest_igetattrsx(files[i], kAttributes, blobs[i].data(), size, &size)); !r)
      return r;
  }
  if (blobs[0] != blobs[1]) report->difference("xattr", path, {"*"});
  return {};
}

void compareXattrs(const Xattrs &active, const Xattrs &snapshot, const std::string &path,
                   Report *report) {
  for (auto now = active.begin(), then = snapshot.begin();
       now != active.end() || then != snapshot.end();) {
    const bool has_now = now != active.end() && (then == snapshot.end() || now->first <= then->first);
    const bool has_then = then != snapshot.end() && (now == active.end() || then->first <= now->first);
    if (!has_now || !has_then || now->second != then->second)
      report->difference("xattr", path, {has_now ? now->first : then->first});
    if (has_now) ++now;
    if (has_then) ++then;
  }
}

Result readTarget(kest_ifile_t *file, std::string *target) {
  target->resize(PATH_MAX);
  int64_t offset = 0;
  const int64_t length =
      kest_iread(file, target->data(), static_cast<int64_t>(target->size()), &offset);
  if (length < 0) return failedErrno(0);
  target->resize(static_cast<size_t>(length));
  return {};
}

Result compareTargets(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                      Report *report) {
  std::string now, then;
  if (Result r = readTarget(active, &now); !r) return r;
  if (Result r = readTarget(snapshot, &then); !r) return r;
  if (now != then) report->difference("target", path, {then, now});
  return {};
}

Result compareDevices(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                      Report *report) {
  std::string numbers[2];
  kest_ifile_t *const files[2] = {active, snapshot};
  for (int i = 0; i < 2; ++i) {
    unsigned major_no = 0, minor_no = 0;
    if (Result r = called(kest_idevice(files[i], &major_no, &minor_no)); !r) return r;
    numbers[i] = std::to_string(major_no) + ":" + std::to_string(minor_no);
  }
  if (numbers[0] != numbers[1]) report->difference("device", path, {numbers[1], numbers[0]});
  return {};
}

}  // namespace

const char *kindName(uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return "file";
    case S_IFDIR:
      return "directory";
    case S_IFLNK:
      return "link";
    case S_IFIFO:
      return "fifo";
    case S_IFSOCK:
      return "socket";
    case S_IFCHR:
      return "char";
    case S_IFBLK:
      return "block";
    default:
      return "unknown";
  }
}

Result statObject(const kest_ifile_t *file, struct stat *st) {
  const UniqueFd fd(kest_path_descriptor(file));
  if (!fd) return failedErrno(0);
  const Result r = called(fstat(fd.get(), st));
  st->st_ino = file->if_inode;  // because a mount may add a tag to the numbers of a snapshot
  return r;
}

Result compareProperties(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                         Report *report) {
  ObjectState now, then;
  if (Result r = readState(active, &now); !r) return r;
  if (Result r = readState(snapshot, &then); !r) return r;
  const struct stat &a = now.st, &s = then.st;
  if (Result r = leaveOutKernelsMark(active, snapshot, a.st_size, then, &now); !r) return r;
  const auto check = [&](const char *kind, const std::string &want, const std::string &have) {
    if (want != have) report->difference(kind, path, {want, have});
  };
  check("mode", octal(s.st_mode), octal(a.st_mode));
  check("owner", std::to_string(s.st_uid), std::to_string(a.st_uid));
  check("group", std::to_string(s.st_gid), std::to_string(a.st_gid));
  if (isRegular(s.st_mode)) check("size", std::to_string(s.st_size), std::to_string(a.st_size));
  check("mtime", timeText(s.st_mtim), timeText(a.st_mtim));
  check("flags", flagsText(then.flags), flagsText(now.flags));
  if (now.too_many || then.too_many) {
    if (Result r = compareAllXattrs(active, snapshot, path, report); !r) return r;
  } else {
    compareXattrs(now.xattrs, then.xattrs, path, report);
  }
  if (S_ISLNK(s.st_mode)) return compareTargets(active, snapshot, path, report);
  if (S_ISCHR(s.st_mode) || S_ISBLK(s.st_mode)) return compareDevices(active, snapshot, path, report);
  return {};
}
