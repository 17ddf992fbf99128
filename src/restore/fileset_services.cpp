#include "restore/fileset_services.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "formats/program_names.h"
#include "messages/messages.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

constexpr int kRemoteFileset = 1;
constexpr int kAlreadyDone = 56;  // this exit status of suspend and resume also means success

// Returns the fileset's name for a command line. A slash keeps a leading "-" from making it an option.
std::string filesetWord() {
  return shellWord(settings.filesetP.starts_with('-') ? "/" + settings.filesetP : settings.filesetP);
}

// Returns the start of a command line that runs one of the file system's commands.
std::string programWord(const char *name) {
  return std::string("exec ") + kProgramDir + name + " ";
}

// Runs one of the file system's commands and reads its output and exit status.
Result askFileSystem(const std::string &command, std::string *output, int *status) {
  if (Result r = checkCommand(command); !r) return r;
  return runCommandOutput(command, output, status);
}

// Runs "ktfsctl <device> <word>". The command prints its messages on standard error.
Result fileSystemControl(const std::string &command, const char *label, Message cannot_start) {
  if (Result r = checkCommand(command); !r) return r;
  int status = 0;
  if (Result r = runCommand(command, &status); !r) {
    printMessage(cannot_start);
    return failed(0, r.err);
  }
  if (status == 0 || status == kAlreadyDone) return {};
  userMessage(Message::kCommandEnded, label, status);
  return commandFailed(0, status);
}

Result writeSnapshotList(const std::string &text) {
  std::unique_ptr<WorkFile> list;
  if (Result r = WorkFile::open(workPath(kSnapList), WorkFile::Mode::kTruncate, &list); !r) return r;
  if (Result r = list->append(text); !r) return r;
  return list->close();
}

}  // namespace

bool isLocalFileset(std::string_view listing) {
  constexpr int kColonsBefore = 18;
  size_t at = listing.find('\n');  // end of the header line
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

Result checkFilesetType() {
  const std::string command =
      programWord("ktlsfileset") + shellWord(settings.deviceP) + " " + filesetWord() + " -Y";
  std::string output;
  int status = 0;
  const Result asked = askFileSystem(command, &output, &status);
  if (asked && status == 0 && !output.empty()) {
    if (isLocalFileset(output)) return {};
    userMessage(Message::kRemoteCaching);
    return {.rc = kRemoteFileset, .err = EOPNOTSUPP};
  }
  userMessage(Message::kFilesetCheckFailed, settings.filesetP);
  if (asked) {
    userMessage(Message::kCommandEnded, "ktlsfileset", status);
  } else {
    userMessage(Message::kFileError, "ktlsfileset", strerror(asked.err));
  }
  return failed(0, asked ? EIO : asked.err);
}

void listSnapshots() {
  const std::string command = programWord("ktlssnapshot") + shellWord(settings.deviceP) + " -j " +
                              shellWord(settings.filesetP) + " 2>/dev/null";
  std::string output;
  int status = 0;
  bool listed = askFileSystem(command, &output, &status) && status == 0;
  if (listed) {
    listed = bool{writeSnapshotList(output)};
    // Clones of a snapshot that half a list omits would count as having lost their parent.
    if (!listed) (void)unlinkWorkFile(workPath(kSnapList));
  }
  if (!listed) traceLog("Cannot list all snapshots in %s\n", settings.deviceP.c_str());
}

Result syncFileset() {
  if (Result r = called(setenv("PWD", "/", 1)); !r) return r;
  if (Result r = called(chdir("/")); !r) return r;
  const std::string device = shellWord(settings.deviceP);
  const Result suspended =
      fileSystemControl("cd /;" + programWord("ktfsctl") + device + " suspend > /dev/null",
                        "ktfsctl suspend", Message::kNoSuspendProcess);
  if (!suspended) return suspended;
  return fileSystemControl("cd /; " + programWord("ktfsctl") + device + " resume > /dev/null",
                           "ktfsctl resume", Message::kNoResumeProcess);
}
