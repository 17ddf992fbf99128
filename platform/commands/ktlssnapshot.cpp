// Lists the snapshots of a fileset.

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "commands/command_line.h"
#include "commands/fileset_lookup.h"

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

std::string oneWord(const std::string &text) {
  std::string word;
  for (unsigned char c : text) {
    char code[5];
    if (c <= ' ' || c == '\\' || c == 0x7f) {
      snprintf(code, sizeof(code), "\\%03o", c);
      word += code;
    } else {
      word += static_cast<char>(c);
    }
  }
  return word;
}

int list(const CommandLine &line) {
  Fileset fileset;
  std::string problem;
  if (!findFileset(line.word(0), line.option('j'), &fileset, &problem)) return line.fail(problem);
  std::vector<Snapshot> snapshots;
  int rc = findSnapshots(fileset, &snapshots);
  if (rc < 0) return line.fail(line.option('j'), rc);
  std::string name = oneWord(fileset.path.empty() ? "/" : fileset.path);
  printf("Snapshots of fileset %s on %s\n", name.c_str(), oneWord(line.word(0)).c_str());
  printf("%-32s %-8s %-8s %-24s  %s\n", "Directory", "Id", "Status", "Created", "Fileset");
  for (const Snapshot &one : snapshots) {
    SubvolumeState state;
    rc = readState(fileset, one.subvolume.id, &state);
    if (rc == -ENOENT) continue;  // deleted a moment ago
    if (rc < 0) return line.fail(one.name, rc);
    char created[64];
    time_t seconds = state.created;
    struct tm parts {};
    localtime_r(&seconds, &parts);
    strftime(created, sizeof(created), "%a %b %e %H:%M:%S %Y", &parts);
    printf("%-32s %-8" PRIu64 " %-8s %s  %s\n", oneWord(one.name).c_str(), one.subvolume.id,
           state.read_only ? "Valid" : "Writable", created, name.c_str());
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
