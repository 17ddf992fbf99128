#include "support/tree_fingerprint.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "support/descriptor.h"

namespace testsupport {
namespace {

constexpr unsigned kComparedFlags =
    FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NOCOW_FL | FS_COMPR_FL | FS_NOCOMP_FL;
constexpr uint64_t kBlock = 4096;

// Inode numbers of a subvolume's root and of what a snapshot shows in place of a nested subvolume.
constexpr ino_t kSubvolumeRoot = 256;
constexpr ino_t kSubvolumeStub = 2;

uint64_t hashBlock(uint64_t hash, uint64_t offset, const char *bytes, size_t length) {
  hash = (hash ^ offset) * 0x9fb21c651e98df25ull;
  uint64_t word = 0;
  for (size_t i = 0; i < length; i += 8) {
    word = 0;
    memcpy(&word, bytes + i, std::min<size_t>(8, length - i));
    hash = (hash ^ word) * 0x9fb21c651e98df25ull;
    hash ^= hash >> 29;
  }
  return hash;
}

bool allZero(const char *bytes, size_t length) {
  return length == 0 || (bytes[0] == 0 && memcmp(bytes, bytes + 1, length - 1) == 0);
}

size_t readAt(int fd, char *buffer, size_t length, uint64_t offset, const std::string &path) {
  size_t done = 0;
  while (done < length) {
    ssize_t n = pread(fd, buffer + done, length - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) failWithErrno("read " + path);
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

class Reader {
 public:
  Reader(const std::string &root, const FingerprintOptions &options) : options_(options) {
    tree_.root = root;
  }

  TreePrint take() {
    Descriptor top(open(tree_.root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!top.valid()) failWithErrno("open " + tree_.root);
    readObject(top.get(), "", 0);
    noteGroups();
    connectClones(&tree_);
    return std::move(tree_);
  }

 private:
  void readObject(int fd, const std::string &path, ino_t parent) {
    ino_t inode = 0;
    const Descriptor dir = describe(fd, path, parent, &inode);
    if (dir.valid()) readEntries(dir.get(), path, inode);
  }

  // fd is opened with O_PATH: nothing is started on devices and FIFOs by looking at them. A descriptor
  // of a directory to read on. Not inlined: its large frame would stand once for every level of a tree.
  [[gnu::noinline]] Descriptor describe(int fd, const std::string &path, ino_t parent, ino_t *inode) {
    ObjectPrint object;
    struct statx sx;
    if (statx(fd, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
      failWithErrno("stat " + path);
    object.mode = sx.stx_mode;
    object.uid = sx.stx_uid;
    object.gid = sx.stx_gid;
    object.links = sx.stx_nlink;
    object.device = makedev(sx.stx_rdev_major, sx.stx_rdev_minor);
    object.mtime = {sx.stx_mtime.tv_sec, static_cast<long>(sx.stx_mtime.tv_nsec)};
    object.ctime = {sx.stx_ctime.tv_sec, static_cast<long>(sx.stx_ctime.tv_nsec)};
    object.birth = {sx.stx_btime.tv_sec, static_cast<long>(sx.stx_btime.tv_nsec)};
    object.inode = sx.stx_ino;
    object.parent = parent;
    if (S_ISDIR(object.mode) && !path.empty() &&
        (object.inode == kSubvolumeRoot || object.inode == kSubvolumeStub)) {
      if (options_.ignoreNested) return Descriptor(-1);
      object.nested = true;
      tree_.objects.emplace(path, std::move(object));
      return Descriptor(-1);
    }
    readXattrs(fd, path, &object);
    if (S_ISLNK(object.mode)) readTarget(fd, path, &object);
    if (!S_ISREG(object.mode) && !S_ISDIR(object.mode)) {
      tree_.objects.emplace(path, std::move(object));
      return Descriptor(-1);
    }
    Descriptor opened(open(procPath(fd).c_str(), O_RDONLY | O_NOATIME | O_NONBLOCK | O_CLOEXEC));
    if (!opened.valid()) failWithErrno("open " + path);
    int flags = 0;
    if (ioctl(opened.get(), FS_IOC_GETFLAGS, &flags) != 0) failWithErrno("get flags of " + path);
    object.flags = static_cast<unsigned>(flags) & kComparedFlags;
    *inode = object.inode;
    bool isDir = S_ISDIR(object.mode);
    if (!isDir) {
      object.size = sx.stx_size;
      readData(opened.get(), path, &object);
      if (object.clone) object.clone->blocks = physicalBlocks(opened.get(), path);
    }
    tree_.objects.emplace(path, std::move(object));
    return isDir ? std::move(opened) : Descriptor(-1);
  }

  void readEntries(int fd, const std::string &path, ino_t inode) {
    int again = openat(fd, ".", O_RDONLY | O_DIRECTORY | O_NOATIME | O_CLOEXEC);
    DIR *dir = again < 0 ? nullptr : fdopendir(again);
    if (dir == nullptr) failWithErrno("list " + path);
    std::vector<std::string> names;
    while (dirent *entry = readdir(dir))
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
        names.emplace_back(entry->d_name);
    closedir(dir);
    for (const std::string &name : names) {
      if (path.empty() && excluded(name)) continue;
      std::string below = path.empty() ? name : path + "/" + name;
      Descriptor child(openat(fd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
      if (!child.valid()) failWithErrno("open " + below);
      readObject(child.get(), below, inode);
    }
  }

  bool excluded(const std::string &name) const {
    return std::any_of(
        options_.excludePrefixes.begin(), options_.excludePrefixes.end(),
        [&](const std::string &prefix) { return name.compare(0, prefix.size(), prefix) == 0; });
  }

  static void readXattrs(int fd, const std::string &path, ObjectPrint *object) {
    std::string at = procPath(fd);
    std::string list(65536, '\0'), value(65536, '\0');
    ssize_t length = listxattr(at.c_str(), list.data(), list.size());
    if (length < 0) failWithErrno("list attributes of " + path);
    for (const char *name = list.data(); name < list.data() + length; name += strlen(name) + 1) {
      ssize_t got = getxattr(at.c_str(), name, value.data(), value.size());
      if (got < 0) failWithErrno(std::string("get ") + name + " of " + path);
      object->xattrs[name] = value.substr(0, static_cast<size_t>(got));
    }
    auto clone = object->xattrs.find("trusted.kest.CLONE");
    if (clone == object->xattrs.end()) return;
    object->clone = readClone(clone->second, object->xattrs["trusted.kest.CLONESNAP"]);
    object->xattrs.erase("trusted.kest.CLONE");
    object->xattrs.erase("trusted.kest.CLONESNAP");
  }

  static void readTarget(int fd, const std::string &path, ObjectPrint *object) {
    object->target.resize(PATH_MAX + 1);  // not on the stack: this walk recurses through deep trees
    ssize_t length = readlinkat(fd, "", object->target.data(), object->target.size());
    if (length < 0) failWithErrno("readlink " + path);
    object->target.resize(static_cast<size_t>(length));
    object->size = object->target.size();
  }

  static void readData(int fd, const std::string &path, ObjectPrint *object) {
    std::vector<char> buffer(256 * 1024);
    uint64_t at = 0;
    object->dataHash = 0x2545f4914f6cdd1dull;
    while (at < object->size) {
      off_t start = lseek(fd, static_cast<off_t>(at), SEEK_DATA);
      if (start < 0 && errno == ENXIO) break;
      if (start < 0) failWithErrno("seek data of " + path);
      off_t stop = lseek(fd, start, SEEK_HOLE);
      if (stop < 0) failWithErrno("seek hole of " + path);
      uint64_t from = static_cast<uint64_t>(start) / kBlock * kBlock;
      uint64_t to =
          std::min((static_cast<uint64_t>(stop) + kBlock - 1) / kBlock * kBlock, object->size);
      if (!object->data.empty() && object->data.back().second >= from)
        object->data.back().second = to;
      else
        object->data.emplace_back(from, to);
      for (uint64_t offset = std::max(at, from); offset < to; offset += buffer.size()) {
        size_t got =
            readAt(fd, buffer.data(), std::min<uint64_t>(buffer.size(), to - offset), offset, path);
        for (size_t i = 0; i < got; i += kBlock) {
          size_t part = std::min<size_t>(kBlock, got - i);
          if (!allZero(&buffer[i], part))
            object->dataHash = hashBlock(object->dataHash, offset + i, &buffer[i], part);
        }
      }
      at = to;
    }
    const bool noHole = object->data.size() == 1 && object->data[0].second == object->size;
    if (noHole) object->data = missingIn(object->data, preallocated(fd, object->size, path));
  }

  void noteGroups() {
    std::map<ino_t, std::vector<std::string>> groups;
    for (const auto &[path, object] : tree_.objects)
      if (!S_ISDIR(object.mode)) groups[object.inode].push_back(path);
    for (auto &[path, object] : tree_.objects) {
      if (S_ISDIR(object.mode)) continue;
      const auto &group = groups[object.inode];
      if (group.size() > 1) object.group = group;
    }
  }

  const FingerprintOptions &options_;
  TreePrint tree_;
};

const char *kindName(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return "file";
    case S_IFDIR:
      return "directory";
    case S_IFLNK:
      return "symbolic link";
    case S_IFIFO:
      return "FIFO";
    case S_IFSOCK:
      return "socket";
    case S_IFCHR:
      return "character device";
    case S_IFBLK:
      return "block device";
    default:
      return "unknown kind";
  }
}

std::string octal(mode_t mode) {
  char text[16];
  snprintf(text, sizeof text, "%04o", mode & 07777u);
  return text;
}

std::string timeText(const timespec &time) {
  char text[48];
  snprintf(text, sizeof text, "%lld.%09ld", static_cast<long long>(time.tv_sec), time.tv_nsec);
  return text;
}

std::string deviceText(dev_t device) {
  return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

std::string valueText(const std::string &value) {
  std::string text = "\"" + shown(value.substr(0, 40)) + "\"";
  if (value.size() > 40) text += "... (" + std::to_string(value.size()) + " bytes)";
  return text;
}

std::string rangesText(const std::vector<std::pair<uint64_t, uint64_t>> &ranges) {
  std::string text;
  for (size_t i = 0; i < ranges.size() && i < 8; ++i)
    text += "[" + std::to_string(ranges[i].first) + "," + std::to_string(ranges[i].second) + ")";
  if (ranges.size() > 8) text += "... (" + std::to_string(ranges.size()) + " ranges)";
  return text.empty() ? "none" : text;
}

std::string flagsText(unsigned flags) {
  std::string text;
  if (flags & FS_IMMUTABLE_FL) text += "immutable ";
  if (flags & FS_APPEND_FL) text += "append-only ";
  if (flags & FS_NOCOW_FL) text += "nocow ";
  if (flags & FS_COMPR_FL) text += "compressed ";
  if (flags & FS_NOCOMP_FL) text += "uncompressed ";
  return text.empty() ? "none" : text.substr(0, text.size() - 1);
}

std::string groupText(const std::vector<std::string> &group) {
  if (group.empty()) return "alone";
  std::string text = "{";
  for (size_t i = 0; i < group.size() && i < 6; ++i) text += (i ? ", " : "") + shown(group[i]);
  if (group.size() > 6) text += ", ... (" + std::to_string(group.size()) + " names)";
  return text + "}";
}

std::string firstDifference(const std::string &wantPath, const std::string &havePath) {
  Descriptor want(open(wantPath.c_str(), O_RDONLY | O_NOATIME | O_CLOEXEC));
  Descriptor have(open(havePath.c_str(), O_RDONLY | O_NOATIME | O_CLOEXEC));
  if (!want.valid() || !have.valid()) return "offset unknown";
  std::vector<char> a(65536), b(65536);
  for (uint64_t offset = 0; offset < 64ull << 20; offset += a.size()) {
    size_t n = readAt(want.get(), a.data(), a.size(), offset, wantPath);
    size_t m = readAt(have.get(), b.data(), b.size(), offset, havePath);
    for (size_t i = 0; i < std::min(n, m); ++i)
      if (a[i] != b[i]) return "first at offset " + std::to_string(offset + i);
    if (n != m) return "one ends at offset " + std::to_string(offset + std::min(n, m));
    if (n < a.size()) break;
  }
  return "offset beyond 64 MiB, or changed since";
}

class Comparison {
 public:
  std::vector<std::string> lines;

  void objects(const TreePrint &wantTree, const TreePrint &haveTree, const std::string &path,
               const ObjectPrint &want, const ObjectPrint &have) {
    path_ = path;
    if ((want.mode & S_IFMT) != (have.mode & S_IFMT) || want.nested != have.nested) {
      differ("type", want.nested ? "nested subvolume" : kindName(want.mode),
             have.nested ? "nested subvolume" : kindName(have.mode));
      return;
    }
    if (want.nested) return;
    check("mode", octal(want.mode), octal(have.mode));
    check("owner", std::to_string(want.uid), std::to_string(have.uid));
    check("group", std::to_string(want.gid), std::to_string(have.gid));
    check("size", std::to_string(want.size), std::to_string(have.size));
    if (want.dataHash != have.dataHash)
      lines.push_back("data of " + name() + " differ: " +
                      firstDifference(wantTree.root + "/" + path, haveTree.root + "/" + path));
    check("data ranges", rangesText(want.data), rangesText(have.data), want.data == have.data);
    check("target", valueText(want.target), valueText(have.target), want.target == have.target);
    check("device number", deviceText(want.device), deviceText(have.device));
    check("mtime", timeText(want.mtime), timeText(have.mtime));
    check("flags", flagsText(want.flags), flagsText(have.flags));
    check("links", std::to_string(want.links), std::to_string(have.links));
    check("hard-link group", groupText(want.group), groupText(have.group), want.group == have.group);
    attributes(want, have);
  }

 private:
  std::string name() const { return path_.empty() ? "the root" : shown(path_); }

  void differ(const std::string &what, const std::string &want, const std::string &have) {
    lines.push_back(what + " of " + name() + ": want " + want + ", have " + have);
  }
  void check(const std::string &what, const std::string &want, const std::string &have, bool equal) {
    if (!equal) differ(what, want, have);
  }
  void check(const std::string &what, const std::string &want, const std::string &have) {
    check(what, want, have, want == have);
  }

  void attributes(const ObjectPrint &want, const ObjectPrint &have) {
    for (const auto &[key, value] : want.xattrs) {
      auto other = have.xattrs.find(key);
      if (other == have.xattrs.end())
        differ(shown(key), valueText(value), "nothing");
      else
        check(shown(key), valueText(value), valueText(other->second), value == other->second);
    }
    for (const auto &[key, value] : have.xattrs)
      if (!want.xattrs.count(key)) differ(shown(key), "nothing", valueText(value));
  }

  std::string path_;
};

}  // namespace

TreePrint fingerprint(const std::string &root, const FingerprintOptions &options) {
  return Reader(root, options).take();
}

std::vector<std::string> compare(const TreePrint &want, const TreePrint &have) {
  Comparison comparison;
  for (const auto &[path, object] : want.objects) {
    auto other = have.objects.find(path);
    if (other == have.objects.end())
      comparison.lines.push_back("missing: " + shown(path) + " (" + kindName(object.mode) + ")");
    else
      comparison.objects(want, have, path, object, other->second);
  }
  for (const auto &[path, object] : have.objects)
    if (!want.objects.count(path))
      comparison.lines.push_back("left over: " + shown(path) + " (" + kindName(object.mode) + ")");
  for (std::string &line : compareClones(want, have)) comparison.lines.push_back(std::move(line));
  return std::move(comparison.lines);
}

std::map<std::string, ino_t> inodes(const TreePrint &tree) {
  std::map<std::string, ino_t> numbers;
  for (const auto &[path, object] : tree.objects) numbers[path] = object.inode;
  return numbers;
}

std::string shown(const std::string &path) {
  std::string text;
  for (unsigned char c : path) {
    if (c >= 32 && c < 127 && c != '"' && c != '\\') {
      text += static_cast<char>(c);
    } else {
      char code[8];
      snprintf(code, sizeof code, "\\x%02x", c);
      text += code;
    }
  }
  return text;
}

std::string joined(const std::vector<std::string> &lines, size_t most) {
  std::string text;
  for (size_t i = 0; i < lines.size() && i < most; ++i) text += lines[i] + "\n";
  if (lines.size() > most) text += "... " + std::to_string(lines.size() - most) + " more\n";
  return text;
}

}  // namespace testsupport
