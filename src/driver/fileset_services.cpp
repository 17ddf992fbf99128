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
#include "run/work_dir.h"

namespace {

constexpr size_t kCommandMax = 2048;  // bytes, terminator included
constexpr int kAlreadyDone = 56;      // exit status of suspend and resume that is as good as 0

bool fits(const std::string &command) {
  if (command.size() < kCommandMax) return true;
  userMessage(Message::kCommandTooLong, static_cast<int>(kCommandMax), command);
  return false;
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

int checkFilesetType() {
  const std::string command = "exec /usr/qtx/kest/bin/ktlsfileset " + shellWord(settings.deviceP) +
                              " " + shellWord(settings.filesetP) + " -Y 2>/dev/null";
  std::string output;
  int status = 0;
  if (!fits(command) || runCommandOutput(command, &output, &status) != 0) {
    userMessage(Message::kFilesetCheckFailed, settings.filesetP);
    return -1;
  }
  size_t at = output.find('\n');  // behind the header line
  if (at == std::string::npos) return 1;
  const size_t end = output.find('\n', ++at);
  const std::string data = output.substr(at, end == std::string::npos ? end : end - at);
  at = 0;
  for (int colons = 0; colons < 18; ++colons) {
    at = data.find(':', at);
    if (at == std::string::npos) return 1;
    ++at;
  }
  return at < data.size() && data[at] == '-' ? 0 : 1;
}

int listSnapshots() {
  const std::string command = "exec /usr/qtx/kest/bin/ktlssnapshot " + shellWord(settings.deviceP) +
                              " -j " + shellWord(settings.filesetP) + " > " +
                              shellWord(workPath(kSnapList)) + " 2>/dev/null";
  int status = 0;
  if (!fits(command) || runCommand(command, &status) != 0 || status != 0) {
    traceLog("Cannot list all snapshots in %s\n", settings.deviceP.c_str());
    unlink(workPath(kSnapList).c_str());  // half a list would hide the others
    return 0;
  }
  return 1;
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
