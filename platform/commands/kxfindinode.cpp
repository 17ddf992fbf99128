// kxfindinode: finds the paths of an inode.

#include <cerrno>
#include <charconv>
#include <cstdio>

#include "commands/command_line.h"
#include "detect/file_systems.h"

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

int findPaths(const CommandLine &line, uint64_t ino) {
  std::string root = line.word(0);
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  std::unique_ptr<Tree> tree;
  int rc = openTreeAt(root, &tree);
  if (rc == -ENOTTY) return line.fail(root + " is not on a btrfs");
  if (rc < 0) return line.fail(root, rc);
  InodeNames found;
  rc = tree->findNames(ino, &found);
  if (rc < 0) return line.fail("inode " + std::to_string(ino), rc);
  for (const std::string &path : found.paths) {
    const char *slash = path.empty() || root == "/" ? "" : "/";
    printf("%llu %llu %s\n", static_cast<unsigned long long>(ino),
           static_cast<unsigned long long>(found.generation), escape(root + slash + path).c_str());
  }
  if (found.paths.empty())
    return line.fail("no path below " + root + " leads to inode " + std::to_string(ino));
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
