// ktunlinkfileset: unlinks a nested fileset, with all its data, from the tree in which it is linked.

#include <cstdio>

#include "commands/command_line.h"
#include "filesystem/error_text.h"

namespace kest {
namespace {

constexpr char kUsage[] =
    "Usage: ktunlinkfileset DEVICE -J PATH\n"
    "Moves the nested subvolume at PATH to .unlinked/<id>-<name> at the top of the file system of "
    "DEVICE\n"
    "and prints that name. Nothing is deleted. The top of the file system need not be mounted. No "
    "symbolic\n"
    "link may stand in PATH.\n";

int unlinkFileset(const CommandLine &line) {
  std::unique_ptr<FileSystem> fs;
  if (int failed = line.openDevice(line.word(0), &fs); failed != 0) return failed;
  std::string where;
  if (fs->unlinkFileset(line.option('J'), &where) < 0) return line.fail(errorText());
  printf("%s\n", where.c_str());
  return line.finish();
}

}  // namespace
}  // namespace kest

int main(int argc, char **argv) {
  kest::CommandLine line("ktunlinkfileset", kest::kUsage);
  int status;
  if (!line.parse(argc, argv, "J:", 1, &status)) return status;
  if (line.option('J').empty()) return line.usageError("-J PATH is needed");
  return kest::unlinkFileset(line);
}
