// fsetcompare, from the command line to the exit status.
#include <fcntl.h>
#include <getopt.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/fd_path.h"
#include "base/leases.h"
#include "base/result.h"
#include "base/unique_fd.h"
#include "fsetcompare/report.h"
#include "fsetcompare/tree_compare.h"
#include "messages/catalogue.h"
#include "messages/messages.h"
#include "run/open_run.h"
#include "run/rights.h"
#include "run/run_handles.h"
#include "run/settings.h"

namespace {

enum Status { kEqual = 0, kDifferent = 1, kTrouble = 2 };

struct Options {
  bool full = false;
  bool help = false, version = false;
};

// Returns false if the usage message must be printed.
bool readOptions(int argc, char **argv, Options *options) {
  const option kLong[] = {{"full", no_argument, nullptr, 'f'},
                          {"help", no_argument, nullptr, 'h'},
                          {"version", no_argument, nullptr, 'V'},
                          {nullptr, 0, nullptr, 0}};
  // The leading '-' makes getopt return other words in their order, too, even with POSIXLY_CORRECT.
  for (int letter; (letter = getopt_long(argc, argv, "-j:o:", kLong, nullptr)) != -1;) {
    if (letter == 1) {
      if (!settings.deviceP.empty()) return false;
      settings.deviceP = optarg;
    } else if (letter == 'j') {
      settings.filesetP = optarg;
    } else if (letter == 'o') {
      settings.snapOldP = optarg;
    } else if (letter == 'f') {
      options->full = true;
    } else if (letter == 'h' || letter == 'V') {
      (letter == 'h' ? options->help : options->version) = true;
      return true;
    } else {
      return false;
    }
  }
  // The words after "--".
  for (; optind < argc; ++optind) {
    if (!settings.deviceP.empty()) return false;
    settings.deviceP = argv[optind];
  }
  return !settings.deviceP.empty() && !settings.filesetP.empty() && !settings.snapOldP.empty();
}

// Prints the requested help or version on standard output.
Status tell(const Options &options) {
  if (options.help)
    fputs(messageText(Message::kCompareHelp), stdout);
  else
    puts("fsetcompare " FSETRESTORE_VERSION);
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return kEqual;
  userMessage(Message::kOutputLost, strerror(errno));
  return kTrouble;
}

// Data that is not committed yet is in no tree.
Result commit() {
  const UniqueFd root(open(handles.rootPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return root ? called(syncfs(root.get())) : failedErrno(0);
}

// Starts breaking the leases on files that the comparison will read, all at once. Later it waits for
// each lease when it comes to the file; otherwise it would wait the full time for one lease after the
// other.
void tellLeaseHolders() {
  for (const uint64_t ino : leasedInodes())
    for (kest_fssnap_handle_t *tree : {handles.activeFsP, handles.oldFsP}) {
      Inode file;
      if (!openIfThere(tree, ino, &file) || !file || !isRegular(file->if_mode)) continue;
      const UniqueFd object(kest_path_descriptor(file.get()));
      if (object) const UniqueFd told(reopen(object.get(), O_RDONLY | O_NONBLOCK | O_NOATIME));
    }
}

Status compare(bool full) {
  if (Result r = commit(); !r) {
    userMessage(Message::kCannotCompare, handles.rootPath, strerror(r.err));
    return kTrouble;
  }
  if (full) tellLeaseHolders();
  Report report;
  if (Result r = compareTrees(full, &report); !r) {
    userMessage(Message::kCompareBrokeOff, strerror(r.err));
    return kTrouble;
  }
  if (Result r = report.finish(); !r) {
    userMessage(Message::kOutputLost, strerror(r.err));
    return kTrouble;
  }
  if (report.troubled()) return kTrouble;
  return report.differences() == 0 ? kEqual : kDifferent;
}

}  // namespace

int main(int argc, char **argv) {
  initMessages();
  if (!prepareLimits()) return kTrouble;
  settings.role = Role::kComparison;
  Options options;
  if (!readOptions(argc, argv, &options)) {
    userMessage(Message::kCompareUsage, argc > 0 ? basename(argv[0]) : "fsetcompare");
    return kTrouble;
  }
  if (options.help || options.version) return tell(options);
  Result opened;
  const Status status = openRun(nullptr, &opened) == Opened::kReady ? compare(options.full) : kTrouble;
  releaseHandles();
  return status;
}
