#include "support/tree_builder.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "support/restore_run.h"

namespace testsupport {
namespace {

constexpr char kCloneCommand[] = "/usr/qtx/kest/bin/ktclone";

uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

void writeAll(int fd, std::string_view bytes, uint64_t offset, const std::string &path) {
  const ssize_t n = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
  if (n == static_cast<ssize_t>(bytes.size())) return;
  if (n >= 0) errno = ENOSPC;
  failWithErrno("write " + path);
}

void runClone(const std::vector<std::string> &words) {
  RunOptions options;
  options.program = kCloneCommand;
  const int status = runProgram(words, options).exitStatus;
  errno = EINVAL;
  if (status != 0) failWithErrno("ktclone " + words[0] + " " + words.back());
}

void removeBelow(int parentFd, const std::string &name, const std::string &path) {
  struct stat st;
  if (fstatat(parentFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) failWithErrno("stat " + path);
  if (!S_ISDIR(st.st_mode)) {
    if (unlinkat(parentFd, name.c_str(), 0) != 0) failWithErrno("unlink " + path);
    return;
  }
  Descriptor dir(openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!dir.valid()) failWithErrno("open " + path);
  for (const std::string &child : listNames(dir.get(), path))
    removeBelow(dir.get(), child, path + "/" + child);
  if (unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) != 0) failWithErrno("rmdir " + path);
}

}  // namespace

std::vector<std::string> listNames(int dirFd, const std::string &path) {
  int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOATIME);
  DIR *dir = fd < 0 ? nullptr : fdopendir(fd);
  if (dir == nullptr) failWithErrno("list " + path);
  std::vector<std::string> names;
  while (dirent *entry = readdir(dir))
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

std::string patternBytes(uint64_t seed, uint64_t offset, size_t length) {
  std::string bytes(length, '\0');
  uint64_t word = mix(seed ^ mix(offset / 8));
  for (size_t i = 0; i < length; ++i) {
    uint64_t at = offset + i;
    if (at % 8 == 0 || i == 0) word = mix(seed ^ mix(at / 8));
    bytes[i] = static_cast<char>(word >> (at % 8 * 8));
  }
  return bytes;
}

std::string aclForUser(uint32_t user, uint16_t permissions) {
  struct Entry {
    uint16_t tag, permissions;  // tag: 1 owner, 2 user, 4 group of the object, 16 mask, 32 others
    uint32_t id;
  };
  const Entry entries[] = {{1, 7, UINT32_MAX},
                           {2, permissions, user},
                           {4, 5, UINT32_MAX},
                           {16, 7, UINT32_MAX},
                           {32, 0, UINT32_MAX}};
  std::string blob("\2\0\0\0", 4);  // version of the format
  return blob.append(reinterpret_cast<const char *>(entries), sizeof entries);
}

TreeBuilder::TreeBuilder(const std::string &root)
    : root_(root), rootFd_(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!rootFd_.valid()) failWithErrno("open " + root);
}

Descriptor TreeBuilder::parentOf(const std::string &path, std::string *name) const {
  Descriptor folder(fcntl(rootFd_.get(), F_DUPFD_CLOEXEC, 3));
  if (!folder.valid()) failWithErrno("dup");
  size_t start = 0;
  for (;;) {
    while (start < path.size() && path[start] == '/') ++start;
    size_t end = path.find('/', start);
    if (end == std::string::npos) break;
    Descriptor next(openat(folder.get(), path.substr(start, end - start).c_str(),
                           O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next.valid()) failWithErrno("open folder of " + path);
    folder = std::move(next);
    start = end;
  }
  *name = path.substr(start);
  if (name->empty()) *name = ".";
  return folder;
}

Descriptor TreeBuilder::open(const std::string &path, int flags) const {
  std::string name;
  Descriptor folder = parentOf(path, &name);
  Descriptor fd(openat(folder.get(), name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid()) failWithErrno("open " + path);
  return fd;
}

template <typename Call>
void TreeBuilder::at(const std::string &what, const std::string &path, Call call) const {
  std::string name;
  const Descriptor folder = parentOf(path, &name);
  if (call(folder.get(), name.c_str()) != 0) failWithErrno(what + " " + path);
}

template <typename Call>
void TreeBuilder::from(const std::string &what, const std::string &one, const std::string &other,
                       Call call) const {
  std::string name;
  const Descriptor folder = parentOf(one, &name);
  at(what + " " + one + " to", other, [&](int otherFolder, const char *otherName) {
    return call(folder.get(), name.c_str(), otherFolder, otherName);
  });
}

void TreeBuilder::file(const std::string &path, std::string_view text, mode_t mode) {
  std::string name;
  Descriptor folder = parentOf(path, &name);
  Descriptor fd(
      openat(folder.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd.valid()) failWithErrno("create " + path);
  writeAll(fd.get(), text, 0, path);
  if (fchmod(fd.get(), mode) != 0) failWithErrno("chmod " + path);
}

void TreeBuilder::big(const std::string &path, uint64_t bytes, uint64_t seed) {
  file(path);
  pattern(path, 0, bytes, seed);
}

void TreeBuilder::sparse(const std::string &path, uint64_t size, const std::vector<uint64_t> &islands) {
  file(path);
  for (uint64_t island : islands) pattern(path, island, 5000, island);
  truncate(path, size);
}

void TreeBuilder::dir(const std::string &path, mode_t mode) {
  at("mkdir", path, [&](int folder, const char *name) {
    return mkdirat(folder, name, 0700) != 0 ? -1 : fchmodat(folder, name, mode, 0);
  });
}

void TreeBuilder::dirs(const std::string &path) {
  for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1))
    if (slash > 0 && !exists(path.substr(0, slash))) dir(path.substr(0, slash));
  if (!exists(path)) dir(path);
}

void TreeBuilder::symlink(const std::string &target, const std::string &path) {
  at("symlink", path,
     [&](int folder, const char *name) { return symlinkat(target.c_str(), folder, name); });
}

void TreeBuilder::fifo(const std::string &path, mode_t mode) {
  device(path, S_IFIFO, 0, 0);
  chmod(path, mode);
}

void TreeBuilder::socket(const std::string &path, mode_t mode) {
  device(path, S_IFSOCK, 0, 0);
  chmod(path, mode);
}

void TreeBuilder::device(const std::string &path, mode_t type, unsigned majorNumber,
                         unsigned minorNumber) {
  at("mknod", path, [&](int folder, const char *name) {
    return mknodat(folder, name, type | 0600, makedev(majorNumber, minorNumber));
  });
}

void TreeBuilder::link(const std::string &existing, const std::string &path) {
  from("link", existing, path,
       [](int a, const char *one, int b, const char *other) { return linkat(a, one, b, other, 0); });
}

void TreeBuilder::write(const std::string &path, uint64_t offset, std::string_view bytes) {
  writeAll(open(path, O_WRONLY).get(), bytes, offset, path);
}

void TreeBuilder::append(const std::string &path, std::string_view bytes) {
  Descriptor fd = open(path, O_WRONLY | O_APPEND);
  if (::write(fd.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
    failWithErrno("append " + path);
}

void TreeBuilder::pattern(const std::string &path, uint64_t offset, uint64_t length, uint64_t seed) {
  const Descriptor fd = open(path, O_WRONLY);
  constexpr uint64_t kPiece = 1 << 20;
  for (uint64_t done = 0; done < length; done += kPiece)
    writeAll(fd.get(), patternBytes(seed, offset + done, std::min(kPiece, length - done)),
             offset + done, path);
}

void TreeBuilder::truncate(const std::string &path, uint64_t size) {
  if (ftruncate(open(path, O_WRONLY).get(), static_cast<off_t>(size)) != 0)
    failWithErrno("truncate " + path);
}

void TreeBuilder::punch(const std::string &path, uint64_t offset, uint64_t length) {
  if (fallocate(open(path, O_WRONLY).get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                static_cast<off_t>(offset), static_cast<off_t>(length)) != 0)
    failWithErrno("punch " + path);
}

void TreeBuilder::preallocate(const std::string &path, uint64_t offset, uint64_t length,
                              bool keepSize) {
  if (fallocate(open(path, O_WRONLY).get(), keepSize ? FALLOC_FL_KEEP_SIZE : 0,
                static_cast<off_t>(offset), static_cast<off_t>(length)) != 0)
    failWithErrno("preallocate " + path);
}

void TreeBuilder::writeMapped(const std::string &path, uint64_t offset, std::string_view bytes) {
  Descriptor fd = open(path, O_RDWR);
  size_t length = offset + bytes.size();
  void *at = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (at == MAP_FAILED) failWithErrno("mmap " + path);
  memcpy(static_cast<char *>(at) + offset, bytes.data(), bytes.size());
  munmap(at, length);
}

void TreeBuilder::reflink(const std::string &from, const std::string &path) {
  file(path);
  if (ioctl(open(path, O_WRONLY).get(), FICLONE, open(from, O_RDONLY).get()) != 0)
    failWithErrno("reflink " + path);
}

void TreeBuilder::cloneParent(const std::string &path) {
  runClone({"snap", root_ + "/" + path});
}

void TreeBuilder::clone(const std::string &parent, const std::string &path) {
  cloneOf(root_ + "/" + parent, path);
}

void TreeBuilder::cloneOf(const std::string &parentPath, const std::string &path) {
  runClone({"copy", parentPath, root_ + "/" + path});
}

void TreeBuilder::rename(const std::string &one, const std::string &to) {
  from("rename", one, to, renameat);
}

void TreeBuilder::exchange(const std::string &one, const std::string &other) {
  // Takes three renames on a file system that has no exchange.
  from("exchange", one, other, [](int a, const char *first, int b, const char *second) {
    if (renameat2(a, first, b, second, RENAME_EXCHANGE) == 0) return 0;
    constexpr char kAside[] = ".exchanged";
    if (errno != EINVAL || renameat(a, first, a, kAside) != 0) return -1;
    if (renameat(b, second, a, first) == 0) {
      if (renameat(a, kAside, b, second) == 0) return 0;
      renameat(a, first, b, second);  // one contains the other: undo
    }
    renameat(a, kAside, a, first);
    errno = EINVAL;
    return -1;
  });
}

void TreeBuilder::remove(const std::string &path) {
  const int flags = isDir(path) ? AT_REMOVEDIR : 0;
  at("remove", path, [&](int folder, const char *name) { return unlinkat(folder, name, flags); });
}

void TreeBuilder::removeTree(const std::string &path) {
  std::string name;
  Descriptor folder = parentOf(path, &name);
  removeBelow(folder.get(), name, path);
}

void TreeBuilder::chmod(const std::string &path, mode_t mode) {
  if (::chmod(procPath(open(path, O_PATH).get()).c_str(), mode) != 0) failWithErrno("chmod " + path);
}

void TreeBuilder::chown(const std::string &path, uid_t uid, gid_t gid) {
  if (fchownat(open(path, O_PATH).get(), "", uid, gid, AT_EMPTY_PATH) != 0)
    failWithErrno("chown " + path);
}

void TreeBuilder::setXattr(const std::string &path, const std::string &name, std::string_view value) {
  Descriptor object = open(path, O_PATH);
  if (setxattr(procPath(object.get()).c_str(), name.c_str(), value.data(), value.size(), 0) != 0)
    failWithErrno("set " + name + " of " + path);
}

void TreeBuilder::removeXattr(const std::string &path, const std::string &name) {
  Descriptor object = open(path, O_PATH);
  if (removexattr(procPath(object.get()).c_str(), name.c_str()) != 0)
    failWithErrno("remove " + name + " of " + path);
}

void TreeBuilder::mtime(const std::string &path, int64_t seconds, long nanoseconds) {
  timespec times[2] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
  if (utimensat(open(path, O_PATH).get(), "", times, AT_EMPTY_PATH) != 0)
    failWithErrno("set times of " + path);
}

void TreeBuilder::flag(const std::string &path, int bits, bool on) {
  const mode_t type = status(path).st_mode & S_IFMT;
  errno = ENOTTY;
  if (type != S_IFREG && type != S_IFDIR) failWithErrno("set flags of " + path);
  const Descriptor fd = open(path, O_RDONLY);
  int flags = 0;
  if (ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0) failWithErrno("get flags of " + path);
  flags = on ? flags | bits : flags & ~bits;
  if (ioctl(fd.get(), FS_IOC_SETFLAGS, &flags) != 0) failWithErrno("set flags of " + path);
}

void TreeBuilder::immutable(const std::string &path, bool on) {
  flag(path, FS_IMMUTABLE_FL, on);
}
void TreeBuilder::appendOnly(const std::string &path, bool on) {
  flag(path, FS_APPEND_FL, on);
}
void TreeBuilder::noCow(const std::string &path, bool on) {
  flag(path, FS_NOCOW_FL, on);
}
void TreeBuilder::compress(const std::string &path, bool on) {
  flag(path, FS_COMPR_FL, on);
}

bool TreeBuilder::exists(const std::string &path) const {
  try {
    open(path, O_PATH);
    return true;
  } catch (const std::system_error &) {
    return false;
  }
}

struct stat TreeBuilder::status(const std::string &path) const {
  struct stat st;
  if (fstat(open(path, O_PATH).get(), &st) != 0) failWithErrno("stat " + path);
  return st;
}

bool TreeBuilder::isDir(const std::string &path) const {
  return S_ISDIR(status(path).st_mode);
}

ino_t TreeBuilder::inode(const std::string &path) const {
  return status(path).st_ino;
}

std::string TreeBuilder::read(const std::string &path) const {
  const Descriptor fd = open(path, O_RDONLY | O_NOATIME);
  std::string text(static_cast<size_t>(status(path).st_size), '\0');
  if (pread(fd.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
    failWithErrno("read " + path);
  return text;
}

std::vector<std::string> TreeBuilder::names(const std::string &path) const {
  return listNames(open(path, O_RDONLY | O_DIRECTORY).get(), path);
}

}  // namespace testsupport
