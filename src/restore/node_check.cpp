#include "restore/node_check.h"

#include <dirent.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "base/local_nodes.h"
#include "formats/program_names.h"
#include "formats/work_names.h"
#include "messages/messages.h"
#include "object/paths.h"
#include "policy/command_lines.h"
#include "restore/make_room.h"
#include "run/node.h"
#include "run/open_run.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

constexpr char kAnswer[] = "fsetrestore " FSETRESTORE_VERSION;

// Returns true if the list of nodes can only mean this machine.
bool namesThisMachineAlone() {
  std::string foreign;
  return nodesAreLocal(settings.nodeSpec, &foreign) && access(kNodesFile, F_OK) != 0 && errno == ENOENT;
}

// Writes a number into the work directory that no other directory has.
Result writeToken(std::string *token) {
  std::array<unsigned char, 16> bytes;
  token->clear();
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    return failedErrno(0);
  for (const unsigned char byte : bytes) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02x", byte);
    *token += digits;
  }
  std::unique_ptr<WorkFile> file;
  if (Result r = WorkFile::open(workPath(kNodeToken), WorkFile::Mode::kTruncate, &file); !r) return r;
  if (Result r = file->append(*token); !r) return r;
  return file->close();
}

Result ask(const std::string &token, size_t *nodes, int *status) {
  std::string command, output;
  if (Result r = nodeQuestion(token, kAnswer, &command); !r) return r;
  const Result r = runCommandOutput(command, &output, status);
  *nodes = strtoul(output.c_str(), nullptr, 10);
  return r;
}

}  // namespace

Result checkNodes(size_t *nodes) {
  *nodes = 1;
  if (kest_spans_nodes(handles.activeFsP) != 1 || namesThisMachineAlone()) return {};
  std::string token;
  int status = 0;
  const auto write = [&] { return writeToken(&token); };
  Result r = write();
  if (isFull(r.err)) r = makeRoom(write);
  if (!r) {
    userMessage(Message::kFileError, workPath(kNodeToken), strerror(r.err));
  } else if (r = ask(token, nodes, &status); !r) {
    userMessage(Message::kFileError, kEngine, strerror(r.err));
  }
  if (r && status == 0) return {};
  userMessage(Message::kNodesCannot);
  return r ? errnoResult(EHOSTUNREACH) : r;
}

int answerNodeCheck(const std::string &token) {
  Result r;
  std::string held;
  bool good = false;
  if (openRun(nullptr, &r) != Opened::kReady) {
    userMessage(Message::kFileError, settings.shareDir, strerror(r.err));
  } else if (!readWholeFile(workPath(kNodeToken), &held) || held != token ||
             !settings.shareDir.starts_with(handles.rootPath + "/")) {
    userMessage(Message::kNodeSeesAnother, settings.shareDir);
  } else {
    puts(kAnswer);
    good = fflush(stdout) == 0;
  }
  // Close the session: the servers of a clustered file system wait for a client that ends without that.
  releaseHandles();
  return good ? 0 : 1;
}

void awaitDeadRuns() {
  if (kest_spans_nodes(handles.activeFsP) != 1) return;
  bool killed = false;
  const Dir root(opendir(handles.rootPath.c_str()));
  const dirent *entry = nullptr;
  while (root && nextEntry(root, &entry) && entry != nullptr) {
    const std::string marker = handles.rootPath + "/" + entry->d_name + "/" + kNodeRun;
    killed = killed || (parseWorkDirName(entry->d_name) && access(marker.c_str(), F_OK) == 0);
  }
  if (killed) awaitDeadNodes();
}
