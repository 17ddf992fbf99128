#include "verify/run_compare.h"

#include <fcntl.h>
#include <getopt.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>

#include "cfgmgr/catalogue.h"
#include "cfgmgr/messages.h"
#include "driver/command_line.h"
#include "driver/preparation.h"
#include "run/descriptor.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "verify/report.h"
#include "verify/tree_compare.h"

namespace {

enum Status { kEqual = 0, kDifferent = 1, kTrouble = 2 };

// False: usage.
bool readOptions(int argc, char **argv, bool *full) {
  const option kLong[] = {{"full", no_argument, nullptr, 'f'}, {nullptr, 0, nullptr, 0}};
  for (int letter; (letter = getopt_long(argc, argv, "j:o:", kLong, nullptr)) != -1;) {
    if (letter == 'j') {
      settings.filesetP = optarg;
    } else if (letter == 'o') {
      settings.snapOldP = optarg;
    } else if (letter == 'f') {
      *full = true;
    } else {
      return false;
    }
  }
  if (optind + 1 != argc || settings.filesetP.empty() || settings.snapOldP.empty()) return false;
  settings.deviceP = argv[optind];
  return true;
}

// What is not written yet is in no tree. 0 or an errno.
int commit() {
  const Descriptor root(open(handles.rootPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return root && syncfs(root.get()) == 0 ? 0 : errno;
}

Status compare(bool full) {
  int rc = commit();
  if (rc != 0) {
    userMessage(Message::kCannotCompare, handles.rootPath, strerror(rc));
    return kTrouble;
  }
  Report report;
  if (compareTrees(full, &report) != 0) {
    userMessage(Message::kCompareBrokeOff, strerror(errno));
    return kTrouble;
  }
  if (!report.finish()) {
    userMessage(Message::kOutputLost, strerror(errno));
    return kTrouble;
  }
  if (report.troubled()) return kTrouble;
  return report.differences() == 0 ? kEqual : kDifferent;
}

}  // namespace

int runCompare(int argc, char **argv) {
  initMessages();
  bool full = false;
  if (!readOptions(argc, argv, &full)) {
    userMessage(Message::kCompareUsage, programName(argc > 0 ? argv[0] : "fsetcompare"));
    return kTrouble;
  }
  settings.phase = kPhaseMain;  // no master: the handles are opened, and nothing else is prepared
  int rc = 0;
  const Status status = prepareRun(&rc) == Prepared::kReady ? compare(full) : kTrouble;
  releaseHandles();
  return status;
}
