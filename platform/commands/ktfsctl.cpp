// ktfsctl: commits a file system, so that disk and trees are up to date.

#include "commands/command_line.h"

namespace {

constexpr char kUsage[] =
    "Usage: ktfsctl DEVICE suspend|resume\n"
    "Commits the file system of DEVICE (any path on it, or its block device). Both words do the same:\n"
    "nothing stays suspended, so a caller that is killed between them leaves no frozen file system.\n";

}  // namespace

int main(int argc, char **argv) {
  kest::CommandLine line("ktfsctl", kUsage);
  int status;
  if (!line.parse(argc, argv, "", 2, &status)) return status;
  const std::string &device = line.word(0);
  if (line.word(1) != "suspend" && line.word(1) != "resume") {
    return line.usageError("suspend or resume expected");
  }
  std::unique_ptr<kest::FileSystem> fs;
  if (int failed = line.openDevice(device, &fs); failed != 0) return failed;
  int rc = fs->commit();
  return rc < 0 ? line.fail("commit of " + device, rc) : 0;
}
