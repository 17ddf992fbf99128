#include "verify/object_state.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <string_view>
#include <vector>

#include "run/descriptor.h"
#include "run/run_handles.h"

namespace {

using Xattrs = std::map<std::string, std::string>;

// Of the relation between clones, which is judged by itself.
constexpr std::string_view kOwnAttributes = "trusted.kest.";

struct FlagName {
  int bit;
  const char *name;
};
constexpr FlagName kFlags[] = {{FS_IMMUTABLE_FL, "immutable"},
                               {FS_APPEND_FL, "append-only"},
                               {FS_NOCOW_FL, "nocow"},
                               {FS_COMPR_FL, "compressed"},
                               {FS_NOCOMP_FL, "uncompressed"}};

struct ObjectState {
  struct stat st {};
  int flags = 0;
  Xattrs xattrs;
  bool too_many = false;  // more names than the kernel lists
};

// 0 or an errno.
int readValue(const char *object, const char *name, std::string *value) {
  for (;;) {
    const ssize_t size = getxattr(object, name, nullptr, 0);
    if (size < 0) return errno;
    value->resize(static_cast<size_t>(size));
    const ssize_t got = getxattr(object, name, value->data(), value->size());
    if (got < 0 && errno == ERANGE) continue;
    if (got < 0) return errno;
    value->resize(static_cast<size_t>(got));
    return 0;
  }
}

int readXattrs(int fd, ObjectState *state) {
  const std::string object = descriptorPath(fd);
  static std::vector<char> names(XATTR_LIST_MAX);
  const ssize_t length = listxattr(object.c_str(), names.data(), names.size());
  if (length < 0 && (errno == E2BIG || errno == ERANGE)) {
    state->too_many = true;
    return 0;
  }
  if (length < 0) return errno == EOPNOTSUPP ? 0 : errno;
  for (const char *name = names.data(); name < names.data() + length;
       name += std::string_view(name).size() + 1) {
    if (std::string_view(name).starts_with(kOwnAttributes)) continue;
    std::string value;
    const int rc = readValue(object.c_str(), name, &value);
    if (rc == ENODATA) continue;  // removed since it was listed
    if (rc != 0) return rc;
    state->xattrs.emplace(name, std::move(value));
  }
  return 0;
}

int readFlags(const kest_ifile_t *file, int *flags) {
  *flags = 0;
  if (!isRegular(file->if_mode) && !isDirectory(file->if_mode)) return 0;
  const Descriptor fd(openForReading(file));
  if (!fd || ioctl(fd.get(), FS_IOC_GETFLAGS, flags) != 0) return errno;
  return 0;
}

int readState(const kest_ifile_t *file, ObjectState *state) {
  const Descriptor fd(kest_path_descriptor(file));
  if (!fd || fstat(fd.get(), &state->st) != 0) return errno;
  if (const int rc = readXattrs(fd.get(), state)) return rc;
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

std::string flagsText(int flags) {
  std::string text;
  for (const FlagName &flag : kFlags)
    if (flags & flag.bit) text += (text.empty() ? "" : ",") + std::string(flag.name);
  return text.empty() ? "none" : text;
}

// Of an object with more attributes than can be listed, the library tells whether they differ. 0 or an
// errno.
int compareAllXattrs(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                     Report *report) {
  std::vector<char> blobs[2];
  kest_ifile_t *const files[2] = {active, snapshot};
  for (int i = 0; i < 2; ++i) {
    int size = 0;
    if (kest_igetattrsx(files[i], 32, nullptr, 0, &size) != 0 && errno != ENOSPC) return errno;
    blobs[i].resize(static_cast<size_t>(size));
    if (size > 0 && kest_igetattrsx(files[i], 32, blobs[i].data(), size, &size) != 0) return errno;
  }
  if (blobs[0] != blobs[1]) report->difference("xattr", path, {"*"});
  return 0;
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

int readTarget(kest_ifile_t *file, std::string *target) {
  target->resize(PATH_MAX);
  int64_t offset = 0;
  const int64_t length =
      kest_iread(file, target->data(), static_cast<int64_t>(target->size()), &offset);
  if (length < 0) return errno;
  target->resize(static_cast<size_t>(length));
  return 0;
}

int compareTargets(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                   Report *report) {
  std::string now, then;
  int rc = readTarget(active, &now);
  if (rc == 0) rc = readTarget(snapshot, &then);
  if (rc == 0 && now != then) report->difference("target", path, {then, now});
  return rc;
}

int compareDevices(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                   Report *report) {
  std::string numbers[2];
  kest_ifile_t *const files[2] = {active, snapshot};
  for (int i = 0; i < 2; ++i) {
    unsigned major_no = 0, minor_no = 0;
    if (kest_idevice(files[i], &major_no, &minor_no) != 0) return errno;
    numbers[i] = std::to_string(major_no) + ":" + std::to_string(minor_no);
  }
  if (numbers[0] != numbers[1]) report->difference("device", path, {numbers[1], numbers[0]});
  return 0;
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

int openForReading(const kest_ifile_t *file) {
  const Descriptor object(kest_path_descriptor(file));
  if (!object) return -1;
  constexpr int kFlagsToRead = O_RDONLY | O_NONBLOCK;
  const int fd = reopen(object.get(), kFlagsToRead | O_NOATIME);
  return fd < 0 && errno == EPERM ? reopen(object.get(), kFlagsToRead) : fd;
}

int statObject(const kest_ifile_t *file, struct stat *st) {
  const Descriptor fd(kest_path_descriptor(file));
  return fd ? fstat(fd.get(), st) : -1;
}

int compareProperties(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                      Report *report) {
  ObjectState now, then;
  int rc = readState(active, &now);
  if (rc == 0) rc = readState(snapshot, &then);
  if (rc != 0) return rc;
  const struct stat &a = now.st, &s = then.st;
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
    rc = compareAllXattrs(active, snapshot, path, report);
  } else {
    compareXattrs(now.xattrs, then.xattrs, path, report);
  }
  if (rc == 0 && S_ISLNK(s.st_mode)) rc = compareTargets(active, snapshot, path, report);
  if (rc == 0 && (S_ISCHR(s.st_mode) || S_ISBLK(s.st_mode)))
    rc = compareDevices(active, snapshot, path, report);
  return rc;
}
