// Finds the paths of an inode.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <map>

#include "btrfs/subvolume.h"
#include "btrfs/tree_items.h"
#include "btrfs/unique_fd.h"
#include "commands/command_line.h"

namespace kest {
namespace {

constexpr char kUsage[] =
    "Usage: kxfindinode -i INODE -- PATH\n"
    "Prints a line for every path below the directory PATH that leads to INODE of PATH's subvolume:\n"
    "inode number, generation, path. In paths a backslash, newline and tab are written as \\\\, \\n "
    "and\n"
    "\\t. Exit status 1 when there is none.\n";

std::string escape(const std::string &path) {
  std::string escaped;
  for (char c : path) {
    if (c == '\\')
      escaped += "\\\\";
    else if (c == '\n')
      escaped += "\\n";
    else if (c == '\t')
      escaped += "\\t";
    else
      escaped += c;
  }
  return escaped;
}

// Paths of directories below the start directory, looked up once each: many links share a directory.
class DirectoryPaths {
 public:
  // `start` is the path of the start directory in its subvolume, with a slash at its end; "" the root.
  DirectoryPaths(int fd, uint64_t subvolume, std::string start)
      : fd_(fd), subvolume_(subvolume), start_(std::move(start)) {}

  // 1 and the path from the start directory, with a slash at its end; 0 when it lies elsewhere or is
  // gone; -errno.
  int find(uint64_t dir, std::string *path) {
    auto known = known_.find(dir);
    if (known == known_.end()) {
      Known one;
      one.answer = look(dir, &one.path);
      known = known_.emplace(dir, one).first;
    }
    *path = known->second.path;
    return known->second.answer;
  }

 private:
  struct Known {
    int answer = 0;
    std::string path;
  };

  int look(uint64_t dir, std::string *path) {
    int rc = directoryPath(fd_, subvolume_, dir, path);
    if (rc == -ENOENT) return 0;
    if (rc < 0) return rc;
    if (path->compare(0, start_.size(), start_) != 0) return 0;
    path->erase(0, start_.size());
    return 1;
  }

  int fd_;
  uint64_t subvolume_;
  std::string start_;
  std::map<uint64_t, Known> known_;
};

// The trees still hold names that were removed since the last commit, and a mount may hide one.
bool leadsTo(const struct stat &start, int fd, const std::string &path, uint64_t ino) {
  struct stat st;
  if (fstatat(fd, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) < 0) return errno == ENAMETOOLONG;
  return st.st_ino == ino && st.st_dev == start.st_dev;
}

int findPaths(const CommandLine &line, uint64_t ino) {
  std::string root = line.word(0);
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  UniqueFd fd(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return line.fail(root, errno);
  struct stat start;
  if (fstat(fd.get(), &start) < 0) return line.fail(root, errno);
  uint64_t subvolume;
  int rc = subvolumeIdOf(fd.get(), &subvolume);
  if (rc == -ENOTTY) return line.fail(root + " is not on a btrfs");
  std::string start_path;
  if (rc == 0) rc = directoryPath(fd.get(), subvolume, start.st_ino, &start_path);
  if (rc < 0) return line.fail(root, rc);

  TreeReader tree(fd.get(), subvolume);
  InodeItem inode;
  std::vector<NameRef> names;
  rc = readInode(tree, ino, &inode);
  if (rc > 0) rc = readNames(tree, ino, &names);
  if (rc < 0) return line.fail("inode " + std::to_string(ino), rc);
  DirectoryPaths directories(fd.get(), subvolume, start_path);
  std::string prefix = root == "/" ? root : root + "/";
  size_t found = 0;
  auto print = [&](const std::string &path) {
    printf("%llu %llu %s\n", static_cast<unsigned long long>(ino),
           static_cast<unsigned long long>(inode.generation), escape(path).c_str());
    found++;
  };
  if (ino == start.st_ino) {
    print(root);
    names.clear();
  }
  for (const NameRef &name : names) {
    std::string path;
    rc = directories.find(name.parent, &path);
    if (rc < 0) return line.fail("directory " + std::to_string(name.parent), rc);
    path += name.name;
    if (rc > 0 && leadsTo(start, fd.get(), path, ino)) print(prefix + path);
  }
  if (found == 0) return line.fail("no path below " + root + " leads to inode " + std::to_string(ino));
  return line.finish();
}

}  // namespace
}  // namespace kest

int main(int argc, char **argv) {
  kest::CommandLine line("kxfindinode", kest::kUsage);
  int status;
  if (!line.parse(argc, argv, "i:", 1, &status)) return status;
  std::string text = line.option('i');
  uint64_t ino = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), ino);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
    return line.usageError("-i needs an inode number");
  }
  return kest::findPaths(line, ino);
}
