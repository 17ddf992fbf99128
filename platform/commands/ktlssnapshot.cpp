// ktlssnapshot: lists the snapshots of a fileset.

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "base/octal.h"
#include "commands/command_line.h"
#include "filesystem/error_text.h"

namespace kest {
namespace {

constexpr char kUsage[] =
    "Usage: ktlssnapshot DEVICE -j FILESET\n"
    "Prints title lines, a header line and a line for every snapshot of FILESET (path of the "
    "subvolume\n"
    "below the top of the file system): name, id, status (Valid, or Writable for one that is not\n"
    "read-only), five words of date, fileset. The name is the last component of the snapshot's path,\n"
    "or its path below the top of the file system where several have the same. Blanks, control\n"
    "characters and backslashes in names are written as a backslash and three octal digits (\\040).\n";

int list(const CommandLine &line) {
  const std::string &device = line.word(0);
  const std::string fileset = line.option('j');
  std::unique_ptr<FileSystem> fs;
  if (int failed = line.openDevice(device, &fs); failed != 0) return failed;
  std::string path;
  std::vector<SnapshotInfo> snapshots;
  int rc = fs->listSnapshots(fileset, &path, &snapshots);
  if (rc == -ENOENT) return line.fail("no fileset " + fileset + " on " + device);
  if (rc < 0) return line.fail(errorText(), rc);
  std::string name = octalEscaped(path.empty() ? "/" : path);
  printf("Snapshots of fileset %s on %s\n", name.c_str(), octalEscaped(device).c_str());
  printf("%-32s %-8s %-8s %-24s  %s\n", "Directory", "Id", "Status", "Created", "Fileset");
  for (const SnapshotInfo &one : snapshots) {
    char created[64];
    time_t seconds = one.created;
    struct tm parts {};
    localtime_r(&seconds, &parts);
    strftime(created, sizeof(created), "%a %b %e %H:%M:%S %Y", &parts);
    printf("%-32s %-8" PRIu64 " %-8s %s  %s\n", octalEscaped(one.name).c_str(), one.id,
           one.read_only ? "Valid" : "Writable", created, name.c_str());
  }
  return line.finish();
}

}  // namespace
}  // namespace kest

int main(int argc, char **argv) {
  kest::CommandLine line("ktlssnapshot", kest::kUsage);
  int status;
  if (!line.parse(argc, argv, "j:", 1, &status)) return status;
  if (line.option('j').empty()) return line.usageError("-j FILESET is needed");
  return kest::list(line);
}
