#include "worker/work_unit.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "formats/batch_line.h"
#include "formats/checkpoint.h"
#include "formats/list_record.h"
#include "formats/operation.h"
#include "messages/messages.h"
#include "object/move_file.h"
#include "records/side_lists.h"
#include "run/fatal_error.h"
#include "run/run_handles.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"
#include "worker/clone_restore.h"
#include "worker/compare_group.h"
#include "worker/delete_file.h"
#include "worker/dir_ops.h"
#include "worker/file_restore.h"
#include "worker/link_file.h"

namespace {

enum UnitStep : int {
  kBadRecord = 0,
  kOpenBatch = 2,
  kCheckpoint = 3,  // opening the file, or writing the line of a record
  kReadBatch = 4,
  kPerform = 5,
};

// `here` is set if the records of directories are those of top directories.
Result perform(const Record &record, const ListRunner &here) {
  switch (record.op.opCode) {
    case kOpRestoreDelFile:
      return restoreDelFile(record);
    case kOpRestoreDiffFile:
      return restoreDiffFile(record);
    case kOpCrDir:
      return crDir(record, here);
    case kOpMoveFile:
      return moveFile(record.path, record.ino, settings.phase, nullptr, false);
    case kOpDelDir:
      return delDir(record, here);
    case kOpDeleteFile:
      return deleteFile(record);
    case kOpLinkFile:
      return linkFile(record);
    case kOpCloneFile:
      return cloneFile(record);
    case kOpCompareGroup:
      return compareGroup(record);
    default:
      traceLog("doWorkUnit: unknown opCode: %d path %s ino %lld\n", record.op.opCode,
               record.path.c_str(), static_cast<long long>(record.ino));
      return failed(kPerform, EINVAL);
  }
}

// These three errors mean that the step met another object than the listed one, or a link in the path.
// A user may have put it there, so they get a message of their own.
void reportFailure(const Record &record, int err) {
  traceLog("doWorkUnit error: %s inodeNum %lld opCode %d\n", record.path.c_str(),
           static_cast<long long>(record.ino), record.op.opCode);
  if (record.op.opCode == kOpCompareGroup) {
    userMessage(Message::kComparisonFailed, settings.filesetP, strerror(err));
  } else if (err == ESTALE || err == ELOOP || err == EXDEV) {
    userMessage(Message::kReplaced, record.path);
  } else {
    userMessage(Message::kObjectFailed, record.path, strerror(err));
  }
}

// Performs the records of a top directory's list in this process, as a worker of a nested run would:
// without further nested runs. (Both are in phase 3, the only one with top directories.) Writes no
// checkpoints, because a retry repeats the top directory's record.
Result performListHere(const std::string &list_path) {
  ListReader list;
  if (Result r = openList(list_path, &list); !r) return r;
  Result result;
  for (bool end = false; result && !end;) {
    ListedRecord listed;
    Record record;
    const Result read = list.next(&listed, &end);
    if (read && end) break;
    if (!read || !parseOpString(listed.opString, &record.op)) {
      traceLog("Invalid record %zu in %s\n", static_cast<size_t>(list.position()), list_path.c_str());
      result = failedErrno(kBadRecord, read ? EINVAL : read.err);
      break;
    }
    record.ino = listed.ino;
    record.path = listed.path;
    result = perform(record, {});
    if (!result) {
      reportFailure(record, result.err);
      markUnfinished(record);
    }
  }
  return result;
}

// Ends the batch. Neither the exit status nor the marker may be 0.
Result stop(const Result &failure) {
  const Result ended = failedErrno(failure.code, failure.err);
  traceLog("doWorkUnit: rc %d, code %d, error %d\n", failure.rc, ended.code, ended.err);
  setFatalError(ended.err);
  return ended;
}

// Writes a worker's checkpoint file. It names the records that are done, and a run that repeats the
// batch skips them.
class Checkpoint {
 public:
  Result open(const std::string &path) {
    return openWorkFile(path, O_WRONLY | O_CREAT | O_APPEND, &fd_);
  }

  // Must be called before a record is performed. Restoring a file's contents and attributes twice, or
  // deleting a name of a known inode twice, has the same result, so the lines of such records may be
  // lost with the worker: they are collected for up to ten milliseconds and written together, or less
  // often where writing them takes long. Any other record depends on what was done before it.
  Result before(const Operation &op) {
    const bool repeatable = op.opCode == kOpRestoreDiffFile || op.opCode == kOpRestoreDelFile ||
                            (op.opCode == kOpDeleteFile && settings.phase == kPhaseMain);
    return repeatable && nanoseconds() - last_write_ < pause_ ? Result{} : flush();
  }
  void done(const Record &record, const std::string &op_string) {
    waiting_ += formatCheckpointLine(record.ino, op_string);
    last_ = record;
  }
  // Writes the collected lines. A record with a line is not performed again, so the file system must
  // hold the result first: kest_settle makes sure of that.
  Result flush() {
    if (waiting_.empty()) return {};
    const int64_t begun = nanoseconds();
    Result r = called(kest_settle(handles.activeFsP));
    if (r) r = syncSideLists();
    if (!r) {
      reportFailure(last_, r.err);
      waiting_.clear();
      return r;
    }
    const Result written = writeAll(fd_.get(), waiting_);
    waiting_.clear();
    last_write_ = nanoseconds();
    pause_ = std::clamp(kPauses * (last_write_ - begun), kPause, kLongestPause);
    return written;
  }

 private:
  static constexpr int64_t kPause = 10'000'000, kLongestPause = 500'000'000;  // nanoseconds
  static constexpr int64_t kPauses = 10;  // a pause lasts this many times as long as the last write

  static int64_t nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
  }

  UniqueFd fd_;
  std::string waiting_;
  Record last_;  // the last record whose line waits
  int64_t last_write_ = 0, pause_ = kPause;
};

// Performs one record and notes that it is done.
Result performLine(std::string_view text, const std::string &list_path, int done,
                   Checkpoint *checkpoint) {
  BatchLine line;
  if (!parseBatchLine(text, &line)) {
    traceLog("Invalid record %d in %s\n", done, list_path.c_str());
    return stop(failed(kBadRecord, EINVAL));
  }
  Record record{line.ino, std::move(line.path), {}};
  if (!parseOpString(line.opString, &record.op)) {
    traceLog("Invalid opString %s\n", line.opString.c_str());
    return stop(failed(kBadRecord, EINVAL));
  }
  // If a line cannot be written, a repeated run would not know that the record is done.
  if (Result r = checkpoint->before(record.op); !r) return stop(failed(kCheckpoint, r.err));
  const ListRunner here = settings.topDir ? performListHere : ListRunner{};
  if (Result r = perform(record, here); !r) {
    if (stopSignal() != 0) return errnoResult(EINTR);
    reportFailure(record, r.err);
    const Result stopped = stop(failed(kPerform, r.err));
    // This must follow stop(), which writes the marker that markIfOthersFailed looks for.
    markUnfinished(record);
    return stopped;
  }
  markIfOthersFailed(record);
  checkpoint->done(record, line.opString);
  return {};
}

// Returns the first line of `text` with its newline; without one if the line is cut off or too long.
std::string_view firstLine(std::string_view text) {
  text = text.substr(0, kBatchLineMax - 1);
  return text.substr(0, text.find('\n') == text.npos ? text.npos : text.find('\n') + 1);
}

}  // namespace

Result doWorkUnit(const std::string &listPath, int32_t callerPid) {
  UniqueFd fd;
  if (Result r = openWorkFile(listPath, O_RDONLY, &fd); !r) {
    traceLog("cannot open opList file. path %s, err %d\n", listPath.c_str(), r.err);
    return stop(r.at(kOpenBatch));
  }
  FileReader batch;
  batch.open(std::move(fd));
  const std::string checkpoint_path = checkpointFile(callerPid, hostName(), getpid());
  Checkpoint checkpoint;
  if (Result r = checkpoint.open(checkpoint_path); !r) return stop(failed(kCheckpoint, r.err));

  Result result;
  for (int done = 0; result; ++done) {
    std::string_view text;
    if (Result r = batch.peek(kBatchLineMax, &text); !r) {
      result = stop(failed(kReadBatch, r.err));
      break;
    }
    if (text.empty()) break;
    if (stopSignal() != 0) {
      result = errnoResult(EINTR);
      break;
    }
    const std::string_view line = firstLine(text);
    result = performLine(line, listPath, done, &checkpoint);
    batch.skip(line.size());
  }
  const Result written = checkpoint.flush();
  return result && !written ? stop(failed(kCheckpoint, written.err)) : result;
}

int runWorker() {
  const int pid = static_cast<int>(getpid());
  // End after the record at hand and close the session: the servers of a clustered file system wait for
  // a client that is killed.
  if (kest_spans_nodes(handles.activeFsP) == 1) catchStopSignals();
  traceLog("[THREAD %d] start, phase %d, callerPid %d\n", pid, settings.phase, settings.callerPid);
  flushTraceLines();
  const int rc = doWorkUnit(settings.listFile, settings.callerPid).rc;
  traceLog("[THREAD %d] finished, phase %d, rc %d\n\n", pid, settings.phase, rc);
  // The exit status has eight bits, so a larger number could become 0.
  return rc >= 0 && rc < 256 ? rc : 1;
}
