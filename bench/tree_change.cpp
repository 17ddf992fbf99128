#include "tree_change.h"

#include <fcntl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace bench {
namespace {

void check(int result, const std::string &what) {
  if (result != 0) fail(what);
}

class Change {
 public:
  explicit Change(const Changed &tree) : tree_(tree) {}

  // Changes every changes-th file. Of 20 files, 13 get other contents, 2 are removed, 2 get a new
  // neighbour, 2 get other attributes and 1 gets another name.
  void mixed() {
    forEachChosen([this](uint64_t file, uint64_t kind) { mixedOne(file, kind % 20); });
  }

  void attributes() {
    forEachChosen([this](uint64_t file, uint64_t kind) { attributesOne(file, kind % 5); });
  }

  // For 20,000 inodes with two names: change data or mode; remove, move or add a name; remove both.
  void links() {
    forEachChosen([this](uint64_t file, uint64_t kind) { linksOne(file, kind % 6); });
  }

  // Removes a tenth of the files: every twentieth directory with its files, and every second file of
  // another tenth.
  void deleted() {
    for (uint64_t file = 0; file < tree_.files; file++) {
      uint64_t leaf = file / kFilesInLeaf;
      if (leaf % 20 == 1) {
        listed(file);
        if (file % kFilesInLeaf == 0) std::filesystem::remove_all(leafPath(leaf));
      } else if (leaf % 10 == 5 && file % 2 == 1) {
        check(unlink(listed(file).c_str()), "unlink");
      }
    }
  }

  // Moves every second of every fourth directory with 500 files into another directory.
  void dirmove() {
    uint64_t middles = tree_.files / kFilesInLeaf / 10;
    for (uint64_t middle = 0; middle < middles; middle += 4) {
      std::string from = middlePath(middle);
      std::string to =
          middle % 8 == 0 ? from + ".renamed" : middlePath((middle + middles / 2) % middles) + ".moved";
      check(rename(from.c_str(), to.c_str()), "rename " + from);
    }
  }

  // Makes new files at depths up to 60, five in each directory.
  void deepNew() {
    constexpr uint64_t kDepth = 60, kFiles = 5;
    std::string path;
    for (uint64_t i = 0; i < tree_.changes; i++) {
      uint64_t inChain = i % (kDepth * kFiles);
      if (inChain == 0) path = middlePath(i / (kDepth * kFiles) * 7 % (tree_.files / 500)) + "/new";
      if (inChain % kFiles == 0) {
        path += "/deeper" + std::to_string(i);
        makeFolders(path);
      }
      writeFile(path + "/new" + std::to_string(i), fileBytes(i), i);
    }
  }

  // Overwrites 4 to 128 KiB at any offset of the big files.
  void ranges() {
    for (uint64_t i = 0; i < tree_.changes; i++) {
      uint64_t mixed = scatter(i + 99);
      size_t bytes = 4096 + mixed % (124 << 10);
      writeRange(filePath(tree_.base, i % tree_.files),
                 static_cast<off_t>((mixed >> 20) % (tree_.bigBytes - bytes)), bytes, i);
    }
    for (uint64_t file = 0; file < tree_.files; file++) listed(file);
  }

  const std::string &list() const { return list_; }

 private:
  std::string listed(uint64_t file) {
    std::string path = filePath(tree_.base, file);
    list_ += path + '\0';
    return path;
  }

  template <typename Action>
  void forEachChosen(Action action) {
    uint64_t stride = tree_.files / tree_.changes;
    for (uint64_t i = 0; i < tree_.changes; i++) action(i * stride + scatter(i) % stride, i);
  }

  void mixedOne(uint64_t file, uint64_t kind) {
    std::string path = filePath(tree_.base, file);
    size_t bytes = fileBytes(file);
    if (kind < 15 || kind > 16) listed(file);
    if (kind < 8) {
      writeRange(path, static_cast<off_t>(bytes / 2), 100 + bytes / 4, file);
    } else if (kind < 10) {
      writeRange(path, static_cast<off_t>(bytes), 3000, file);
    } else if (kind == 10) {
      check(truncate(path.c_str(), static_cast<off_t>(bytes / 2)), "truncate " + path);
    } else if (kind < 13) {
      writeFile(path + ".tmp", bytes + 100, file);
      check(rename((path + ".tmp").c_str(), path.c_str()), "rename " + path);
    } else if (kind < 15) {
      check(unlink(path.c_str()), "unlink " + path);
    } else if (kind < 17) {
      writeFile(path + ".new", bytes, file + 1);
    } else if (kind == 19) {
      check(rename(path.c_str(), (path + ".old").c_str()), "rename " + path);
    } else {
      change(path, kind);
    }
  }

  void attributesOne(uint64_t file, uint64_t kind) { change(listed(file), kind); }

  void change(const std::string &path, uint64_t kind) {
    switch (kind % 5) {
      case 0:
        return check(chmod(path.c_str(), 0600), "chmod " + path);
      case 1:
        return check(setUserAcl(path), "ACL of " + path);
      case 2:
        return check(chown(path.c_str(), 2000, 2000), "chown " + path);
      case 3:
        return check(setxattr(path.c_str(), "user.label", "changed", 7, 0), "setxattr " + path);
      default:
        return check(utimensat(AT_FDCWD, path.c_str(), nullptr, 0), "utimensat " + path);
    }
  }

  // user::rw- user:3000:r-- group::r-- mask::r-- other::r--
  static int setUserAcl(const std::string &path) {
    struct {
      posix_acl_xattr_header header{POSIX_ACL_XATTR_VERSION};
      posix_acl_xattr_entry entries[5] = {
          {0x01, 6, ~0u}, {0x02, 4, 3000}, {0x04, 4, ~0u}, {0x10, 4, ~0u}, {0x20, 4, ~0u}};
    } acl;
    return setxattr(path.c_str(), "system.posix_acl_access", &acl, sizeof acl, 0);
  }

  void linksOne(uint64_t file, uint64_t kind) {
    std::string one = listed(file), two = secondName(file);
    list_ += two + '\0';
    switch (kind) {
      case 0:
        return writeRange(one, static_cast<off_t>(fileBytes(file)), 500, file);
      case 1:
        return check(chmod(two.c_str(), 0600), "chmod " + two);
      case 2:
        return check(unlink(two.c_str()), "unlink " + two);
      case 3:
        return check(rename(one.c_str(), (two + ".moved").c_str()), "rename " + one);
      case 4:
        return check(link(one.c_str(), (one + ".more").c_str()), "link " + one);
      default:
        check(unlink(one.c_str()), "unlink " + one);
        check(unlink(two.c_str()), "unlink " + two);
    }
  }

  Changed tree_;
  std::string list_;
};

}  // namespace

std::string changeTree(const std::string &change, const Changed &tree) {
  Change run(tree);
  if (change == "mixed")
    run.mixed();
  else if (change == "attributes")
    run.attributes();
  else if (change == "delete")
    run.deleted();
  else if (change == "dirmove")
    run.dirmove();
  else if (change == "links")
    run.links();
  else if (change == "new")
    run.deepNew();
  else if (change == "ranges")
    run.ranges();
  else if (change != "nothing")
    throw std::runtime_error("unknown change " + change);
  return run.list();
}

}  // namespace bench
