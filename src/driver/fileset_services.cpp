#include "driver/fileset_services.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "cfgmgr/messages.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

constexpr size_t kCommandMax = 2048;  // bytes, terminator included
constexpr int kAlreadyDone = 56;      // exit status of suspend and resume that is as good as 0

bool fits(const std::string &command) {
  if (command.size() < kCommandMax) return true;
  userMessage(Message::kCommandTooLong, static_cast<int>(kCommandMax), command);
  return false;
}

// The fileset's name for a command line, where a first "-" would make it an option.
std::string filesetWord() {
  return shellWord(settings.filesetP.starts_with('-') ? "/" + settings.filesetP : settings.filesetP);
}

int fileSystemControl(const std::string &command, Message cannot_start) {
  if (!fits(command)) return E2BIG;
  int status = 0;
  if (runCommand(command, &status) != 0) {
    printMessage(cannot_start);
    return -1;
  }
  return status == kAlreadyDone ? 0 : status;
}

}  // namespace

bool isLocalFileset(std::string_view listing) {
  constexpr int kColonsBefore = 18;
  size_t at = listing.find('\n');  // behind the header line
  if (at == std::string_view::npos) return false;
  std::string_view data = listing.substr(at + 1);
  data = data.substr(0, data.find('\n'));
  at = 0;
  for (int colons = 0; colons < kColonsBefore; ++colons) {
    at = data.find(':', at);
    if (at == std::string_view::npos) return false;
    ++at;
  }
  return at < data.size() && data[at] == '-';
}

int checkFilesetType() {
  const std::string command = "exec /usr/qtx/kest/bin/ktlsfileset " + shellWord(settings.deviceP) +
                              " " + filesetWord() + " -Y 2>/dev/null";
  std::string output;
  int status = 0;
  if (!fits(command) || runCommandOutput(command, &output, &status) != 0) {
    userMessage(Message::kFilesetCheckFailed, settings.filesetP);
    return -1;
  }
  return isLocalFileset(output) ? 0 : 1;
}

int listSnapshots() {
  const std::string command = "exec /usr/qtx/kest/bin/ktlssnapshot " + shellWord(settings.deviceP) +
                              " -j " + shellWord(settings.filesetP) + " 2>/dev/null";
  std::string output;
  int status = 0;
  bool listed = fits(command) && runCommandOutput(command, &output, &status) == 0 && status == 0;
  if (listed) {
    std::unique_ptr<WorkFile> list = WorkFile::open(workPath(kSnapList), WorkFile::Mode::kTruncate);
    listed = list && list->append(output) == 0 && list->close() == 0;
    if (!listed) unlinkWorkFile(workPath(kSnapList));  // half a list would hide the others
  }
  if (!listed) traceLog("Cannot list all snapshots in %s\n", settings.deviceP.c_str());
  return listed;
}

int syncFileset() {
  if (setenv("PWD", "/", 1) != 0 || chdir("/") != 0) return errno;
  const std::string device = shellWord(settings.deviceP);
  const int rc =
      fileSystemControl("cd /;exec /usr/qtx/kest/bin/ktfsctl " + device + " suspend > /dev/null 2>&1",
                        Message::kNoSuspendProcess);
  if (rc != 0) return rc;
  return fileSystemControl(
      "cd /; exec /usr/qtx/kest/bin/ktfsctl " + device + " resume > /dev/null 2>&1",
      Message::kNoResumeProcess);
}
