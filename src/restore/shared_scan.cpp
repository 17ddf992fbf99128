#include "restore/shared_scan.h"

#include <fcntl.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>

#include "messages/messages.h"
#include "policy/command_lines.h"
#include "policy/policy_run.h"
#include "restore/make_room.h"
#include "run/fatal_error.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

// A worker takes some time to start, but with more groups than workers the nodes end at about the same
// time.
constexpr size_t kGroupsOfWorker = 2;
constexpr uint64_t kMostOfGroup = 4096;  // directories; comparing them takes some seconds

int rounds = 0;

std::string directoriesFile() {
  return workPath(scanRoundName(rounds));
}

int failWith(const Result &result) {
  errno = result.err != 0 ? result.err : EIO;
  return -1;
}

int openDirectories(void *) {
  UniqueFd fd;
  ++rounds;
  for (const char *name : {kScanDir, kCheckpointDir})
    if (Result r = makeWorkDirectory(workPath(name)); !r) return failWith(r);
  const Result opened = openWorkFile(directoriesFile(), O_WRONLY | O_CREAT | O_EXCL, &fd);
  return opened ? fd.release() : failWith(opened);
}

// Each group is a record with an aggregate of its own, so that every worker gets one at a time.
Result writeList(const kest_group_t *groups, size_t count) {
  std::unique_ptr<WorkFile> list;
  if (Result r = WorkFile::open(workPath(kScanList), WorkFile::Mode::kTruncate, &list); !r) return r;
  for (size_t i = 0; i < count; ++i) {
    const Operation op{.opCode = kOpCompareGroup,
                       .offset = static_cast<int64_t>(groups[i].from),
                       .length = groups[i].to - groups[i].from};
    if (Result r = list->appendRecord(static_cast<int64_t>(i), i + 1, directoriesFile(), op); !r)
      return r;
  }
  return list->close();
}

// A full file system is no failure of the run: the master then compares the trees alone, and makes room
// for its lists.
Result compareGroups(const kest_group_t *groups, size_t count) {
  if (Result r = writeList(groups, count); !r) return r;
  EngineRun run;
  if (Result r = scanRun(&run); !r) return r;
  const Result result = executePolicy(run);
  if (result || stopSignal() != 0) return result;
  const Result recorded = recordedError();
  if (recorded.full() || result.full()) {
    (void)unlinkWorkFile(workPath(kFatalError));
    return errnoResult(ENOSPC);
  }
  if (!recorded) return errnoResult(recorded.err);
  return errnoResult(result.err != 0 ? result.err : EIO);
}

int compare(void *, const kest_group_t *groups, size_t count) {
  traceLog("shareScan: round %d, %zu groups\n", rounds, count);
  const Result result = compareGroups(groups, count);
  traceLog("shareScan: round %d, rc %d, err %d\n", rounds, result.rc, result.err);
  (void)unlinkWorkFile(workPath(kScanList));
  (void)unlinkWorkFile(originalList(workPath(kScanList)));
  (void)unlinkWorkFile(directoriesFile());
  return result ? 0 : failWith(result);
}

int openPart(void *, size_t group) {
  UniqueFd fd;
  const std::string part = scanPartName(directoriesFile(), group + 1);
  if (Result r = openWorkFile(part, O_RDONLY, &fd); !r) return failWith(r);
  (void)unlinkWorkFile(part);
  return fd.release();
}

}  // namespace

Result shareScan(size_t nodes) {
  if (nodes < 2) return {};
  const kest_division_t division{.groups = kGroupsOfWorker * static_cast<size_t>(settings.threads),
                                 .most = kMostOfGroup,
                                 .arg = nullptr,
                                 .open_directories = openDirectories,
                                 .compare = compare,
                                 .open_part = openPart};
  const Result r = called(kest_divide_difference(handles.iscanP, &division));
  if (r || r.err == ENOTSUP) return {};
  userMessage(Message::kComparisonFailed, settings.filesetP, strerror(r.err));
  return r;
}
