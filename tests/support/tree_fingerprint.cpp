#include "support/tree_fingerprint.h"

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
#include <iomanip>
#include <sstream>
#include <string_view>

#include "support/descriptor.h"

namespace testsupport {
namespace {

// All flags that a user can set.
const std::pair<unsigned, const char *> kFlags[] = {
    {FS_IMMUTABLE_FL, "immutable "}, {FS_APPEND_FL, "append-only "}, {FS_NOATIME_FL, "no-atime "},
    {FS_NODUMP_FL, "no-dump "},      {FS_SYNC_FL, "sync "},          {FS_DIRSYNC_FL, "dirsync "},
    {FS_NOCOW_FL, "nocow "},         {FS_COMPR_FL, "compressed "},   {FS_NOCOMP_FL, "uncompressed "}};
constexpr uint64_t kBlock = 4096;

// Inode numbers of a subvolume's root, and of the stub that a snapshot shows for a nested subvolume.
constexpr ino_t kSubvolumeRoot = 256;
constexpr ino_t kSubvolumeStub = 2;

timespec timeOf(const statx_timestamp &time) {
  return {time.tv_sec, static_cast<long>(time.tv_nsec)};
}

class Reader {
 public:
  explicit Reader(const FingerprintOptions &options) : options_(options) {}

  TreePrint take(const std::string &root) {
    Descriptor top(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!top.valid()) failWithErrno("open " + root);
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

  // `fd` was opened with O_PATH, so that examining devices and FIFOs has no effect. Returns a
  // descriptor if the object is a directory to enter. Not inlined, because its large frame would then
  // occur on every level of the recursion.
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
    object.mtime = timeOf(sx.stx_mtime);
    object.ctime = timeOf(sx.stx_ctime);
    object.birth = timeOf(sx.stx_btime);
    object.inode = sx.stx_ino;
    object.parent = parent;
    if (S_ISDIR(object.mode) && !path.empty() &&
        (object.inode == kSubvolumeRoot || object.inode == kSubvolumeStub)) {
      object.nested = true;
      if (!options_.ignoreNested) tree_.objects.emplace(path, std::move(object));
      return {};
    }
    readXattrs(fd, path, &object);
    if (S_ISLNK(object.mode)) readTarget(fd, path, &object);
    if (!S_ISREG(object.mode) && !S_ISDIR(object.mode)) {
      tree_.objects.emplace(path, std::move(object));
      return {};
    }
    Descriptor opened(open(procPath(fd).c_str(), O_RDONLY | O_NOATIME | O_NONBLOCK | O_CLOEXEC));
    if (!opened.valid()) failWithErrno("open " + path);
    int flags = 0;
    const bool none = ioctl(opened.get(), FS_IOC_GETFLAGS, &flags) != 0;
    // These two errors mean that the file system has no flags.
    if (none && errno != ENOTTY && errno != EINVAL) failWithErrno("get flags of " + path);
    object.flags = static_cast<unsigned>(flags);
    *inode = object.inode;
    const bool isDir = S_ISDIR(object.mode);
    if (!isDir) {
      object.size = sx.stx_size;
      readData(opened.get(), path, &object);
      object.blocks = physicalBlocks(opened.get(), path, false);
      if (object.clone) object.clone->blocks = physicalBlocks(opened.get(), path);
    }
    tree_.objects.emplace(path, std::move(object));
    return isDir ? std::move(opened) : Descriptor();
  }

  void readEntries(int fd, const std::string &path, ino_t inode) {
    for (const std::string &name : listNames(fd, path)) {
      const auto begins = [&](const std::string &prefix) { return name.starts_with(prefix); };
      const auto &prefixes = options_.excludePrefixes;
      if (path.empty() && std::any_of(prefixes.begin(), prefixes.end(), begins)) continue;
      std::string below = path.empty() ? name : path + "/" + name;
      Descriptor child(openat(fd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
      if (!child.valid()) failWithErrno("open " + below);
      readObject(child.get(), below, inode);
    }
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
    object->target.resize(PATH_MAX + 1);  // not on the stack: the walk recurses
    ssize_t length = readlinkat(fd, "", object->target.data(), object->target.size());
    if (length < 0) failWithErrno("readlink " + path);
    object->target.resize(static_cast<size_t>(length));
    object->size = object->target.size();
  }

  static void readData(int fd, const std::string &path, ObjectPrint *object) {
    std::vector<char> buffer(256 * 1024);
    uint64_t at = 0;
    object->dataHash = 1;
    while (at < object->size) {
      off_t start = lseek(fd, static_cast<off_t>(at), SEEK_DATA);
      if (start < 0 && errno == ENXIO) break;
      if (start < 0) failWithErrno("seek data of " + path);
      off_t stop = lseek(fd, start, SEEK_HOLE);
      if (stop == INT64_MIN) stop = static_cast<off_t>(object->size);  // the kernel's sum overflows
      if (stop < 0) failWithErrno("seek hole of " + path);
      uint64_t from = static_cast<uint64_t>(start) / kBlock * kBlock;
      uint64_t to =
          std::min((static_cast<uint64_t>(stop) + kBlock - 1) / kBlock * kBlock, object->size);
      if (!object->data.empty() && object->data.back().second >= from)
        object->data.back().second = to;
      else
        object->data.emplace_back(from, to);
      for (uint64_t offset = std::max(at, from); offset < to; offset += buffer.size()) {
        const size_t wanted = std::min<uint64_t>(buffer.size(), to - offset);
        const ssize_t got = pread(fd, buffer.data(), wanted, static_cast<off_t>(offset));
        if (got != static_cast<ssize_t>(wanted)) failWithErrno("read " + path);
        for (size_t i = 0; i < wanted; i += kBlock) {
          const std::string_view block(&buffer[i], std::min<size_t>(kBlock, wanted - i));
          if (block.find_first_not_of('\0') != block.npos)
            object->dataHash = (object->dataHash ^ (offset + i)) * 0x9fb21c651e98df25ull ^
                               std::hash<std::string_view>{}(block);
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
    for (auto &[path, object] : tree_.objects)
      if (!S_ISDIR(object.mode) && groups[object.inode].size() > 1) object.group = groups[object.inode];
  }

  const FingerprintOptions &options_;
  TreePrint tree_;
};

const char *kindName(const ObjectPrint &object) {
  if (object.nested) return "nested subvolume";
  static const std::map<mode_t, const char *> kNames = {
      {S_IFREG, "file"},   {S_IFDIR, "directory"},        {S_IFLNK, "symbolic link"},
      {S_IFIFO, "FIFO"},   {S_IFCHR, "character device"}, {S_IFBLK, "block device"},
      {S_IFSOCK, "socket"}};
  return kNames.at(object.mode & S_IFMT);
}

std::string told(const auto &...parts) {
  std::ostringstream text;
  text << std::setfill('0');
  (text << ... << parts);
  return text.str();
}

std::string flagsText(unsigned flags) {
  std::string text;
  for (const auto &[flag, name] : kFlags)
    if (flags & flag) text += name;
  return text.empty() ? "none" : text.substr(0, text.size() - 1);
}

// Returns all compared properties of an object except clones, as text.
std::map<std::string, std::string> propertiesOf(const ObjectPrint &object) {
  if (object.nested) return {};
  std::string ranges, group;
  for (const auto &[start, end] : object.data) ranges += told("[", start, ",", end, ")");
  for (const std::string &name : object.group) group += (group.empty() ? "{" : ", ") + shown(name);
  std::map<std::string, std::string> all = {
      {"mode", told(std::oct, std::setw(4), object.mode & 07777u)},
      {"owner", std::to_string(object.uid)},
      {"group", std::to_string(object.gid)},
      {"size", std::to_string(object.size)},
      {"data", told("hash ", std::hex, object.dataHash)},
      {"data ranges", ranges},
      {"target", "\"" + shown(object.target) + "\""},
      {"device number", told(major(object.device), ":", minor(object.device))},
      {"mtime", told(object.mtime.tv_sec, ".", std::setw(9), object.mtime.tv_nsec)},
      {"flags", flagsText(object.flags)},
      {"links", std::to_string(object.links)},
      {"hard-link group", group.empty() ? "alone" : group + "}"}};
  for (const auto &[name, value] : object.xattrs) all[shown(name)] = "\"" + shown(value) + "\"";
  return all;
}

std::string cut(const std::string &text) {
  constexpr size_t kMost = 200;
  return text.size() <= kMost ? text : text.substr(0, kMost) + "...";
}

void compareObjects(const std::string &path, const ObjectPrint &want, const ObjectPrint &have,
                    std::vector<std::string> *lines) {
  const std::string name = path.empty() ? "the root" : shown(path);
  const auto differ = [&](const std::string &what, const std::string &one, const std::string &other) {
    lines->push_back(what + " of " + name + ": want " + cut(one) + ", have " + cut(other));
  };
  if (kindName(want) != kindName(have)) return differ("type", kindName(want), kindName(have));
  const auto wanted = propertiesOf(want);
  auto others = propertiesOf(have);
  // The kernel's own mark on data that it wrote and could not compress.
  const bool written = !have.blocks.empty() && have.blocks != want.blocks;
  if (S_ISREG(have.mode) && written && (want.flags & FS_NOCOMP_FL) == 0)
    others["flags"] = flagsText(have.flags & ~unsigned{FS_NOCOMP_FL});
  for (const auto &[what, text] : wanted) {
    const auto other = others.find(what);
    if (other == others.end() || other->second != text)
      differ(what, text, other == others.end() ? "nothing" : other->second);
    others.erase(what);
  }
  for (const auto &[what, text] : others) differ(what, "nothing", text);
}

}  // namespace

TreePrint fingerprint(const std::string &root, const FingerprintOptions &options) {
  return Reader(options).take(root);
}

std::vector<std::string> compare(const TreePrint &want, const TreePrint &have) {
  std::vector<std::string> lines;
  for (const auto &[path, object] : want.objects) {
    auto other = have.objects.find(path);
    if (other == have.objects.end())
      lines.push_back("missing: " + shown(path) + " (" + kindName(object) + ")");
    else
      compareObjects(path, object, other->second, &lines);
  }
  for (const auto &[path, object] : have.objects)
    if (!want.objects.count(path))
      lines.push_back("left over: " + shown(path) + " (" + kindName(object) + ")");
  compareClones(want, have, &lines);
  return lines;
}

std::map<std::string, ino_t> inodes(const TreePrint &tree) {
  std::map<std::string, ino_t> numbers;
  for (const auto &[path, object] : tree.objects) numbers[path] = object.inode;
  return numbers;
}

std::string shown(const std::string &path) {
  std::string text;
  for (unsigned char c : path) {
    char code[8];
    snprintf(code, sizeof code, "\\x%02x", c);
    const bool plain = c >= 32 && c < 127 && c != '"' && c != '\\';
    text += plain ? std::string(1, static_cast<char>(c)) : code;
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
