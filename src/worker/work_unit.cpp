#include "worker/work_unit.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "cfgmgr/messages.h"
#include "object/move_file.h"
#include "record/batch_line.h"
#include "record/checkpoint.h"
#include "record/op_code.h"
#include "record/record_format.h"
#include "run/descriptor.h"
#include "run/fatal_error.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"
#include "run/work_file.h"
#include "worker/clone_restore.h"
#include "worker/delete_file.h"
#include "worker/dir_ops.h"
#include "worker/file_restore.h"
#include "worker/link_file.h"
#include "worker/unfinished.h"

namespace {

// Codes of the dispatcher's trace line.
enum StopCode : int {
  kBadRecord = 0,
  kNoBatchFile = 2,
  kNoCheckpointFile = 3,
  kBatchUnreadable = 4,
  kOperationFailed = 5,
};

struct FileCloser {
  void operator()(FILE *file) const {
    const int saved = errno;
    fclose(file);
    errno = saved;
  }
};

int unknownOp(const BatchLine &line, int32_t opCode) {
  traceLog("doWorkUnit: unknown opCode: %d path %s ino %lld\n", opCode, line.path.c_str(),
           static_cast<long long>(line.ino));
  errno = EINVAL;
  return -1;
}

int perform(const BatchLine &line, const OpString &op) {
  switch (op.opCode) {
    case kOpRestoreDelFile:
      return restoreDelFile(line.path, line.ino, op.offset, op.length, op.holeFound, op.clone);
    case kOpRestoreDiffFile:
      return restoreDiffFile(line.path, line.ino, op.offset, op.length, op.holeFound, op.clone);
    case kOpCrDir:
      return crDir(line.path, line.ino);
    case kOpMoveFile:
      return moveFile(line.path, line.ino, settings.phase, nullptr, false);
    case kOpDelDir:
      return delDir(line.path, line.ino);
    case kOpDeleteFile:
      return deleteFile(line.path, line.ino);
    case kOpLinkFile:
      return linkFile(line.path, line.ino);
    case kOpCloneFile:
      return cloneFile(line.path, line.ino);
    default:
      return unknownOp(line, op.opCode);
  }
}

// Ends the batch: never with 0, and never with a marker that says 0.
int stop(int rc, int code, int err) {
  if (err == 0) err = 1;
  traceLog("doWorkUnit: rc %d, code %d, error %d\n", rc, code, err);
  setFatalError(err);
  return err;
}

int stop(int code, int err) {
  return stop(-1, code, err);
}

// A step that met another object than the listed one, or a link on the way, tells whose work that may
// be.
void operationFailed(const BatchLine &line, const OpString &op, int err) {
  traceLog("doWorkUnit error: %s inodeNum %lld opCode %d\n", line.path.c_str(),
           static_cast<long long>(line.ino), op.opCode);
  if (err == ESTALE || err == ELOOP || err == EXDEV) {
    userMessage(Message::kReplaced, line.path);
  } else {
    userMessage(Message::kObjectFailed, line.path, strerror(err != 0 ? err : EIO));
  }
}

// Performs one record and checkpoints it; 0, or what the batch ends with.
int performLine(const char *text, const std::string &listPath, int done, int checkpoint_fd) {
  BatchLine line;
  // Without its end a path may be cut, and mean something else.
  if (strchr(text, '\n') == nullptr || !parseBatchLine(text, &line)) {
    traceLog("Invalid record %d in %s\n", done, listPath.c_str());
    return stop(kBadRecord, EINVAL);
  }
  OpString op;
  if (!parseOpString(line.opString, &op)) {
    traceLog("Invalid opString %s\n", line.opString.c_str());
    return stop(kBadRecord, EINVAL);
  }
  errno = 0;
  if (int rc = perform(line, op); rc != 0) {
    const int err = errno != 0 ? errno : rc > 0 ? rc : 0;
    operationFailed(line, op, err);
    const int result = stop(kOperationFailed, err);
    markUnfinished(line.path, line.ino, op);
    return result;
  }
  if (unsavedFatalError() != 0) return stop(kOperationFailed, unsavedFatalError());
  markIfOthersFailed(line.path, line.ino, op);
  // Without its line a repeated run would not know that this record is done.
  if (writeAll(checkpoint_fd, formatCheckpointLine(line.ino, line.opString)) != 0)
    return stop(kNoCheckpointFile, errno);
  return 0;
}

}  // namespace

int doWorkUnit(const std::string &listPath, int32_t callerPid) {
  const int batch_fd = openWorkFile(listPath, O_RDONLY);
  std::unique_ptr<FILE, FileCloser> batch(batch_fd < 0 ? nullptr : fdopen(batch_fd, "r"));
  if (!batch) {
    const int err = errno;
    traceLog("cannot open opList file. path %s, err %d\n", listPath.c_str(), err);
    return stop(err, kNoBatchFile, err);
  }
  const std::string checkpoint_path = checkpointFile(callerPid, hostName(), getpid());
  Descriptor checkpoint(openWorkFile(checkpoint_path, O_WRONLY | O_CREAT | O_APPEND));
  if (!checkpoint) return stop(kNoCheckpointFile, errno);

  auto text = std::make_unique<char[]>(kBatchLineMax);
  for (int done = 0;; ++done) {
    if (fgets(text.get(), kBatchLineMax, batch.get()) == nullptr) {
      if (ferror(batch.get())) return stop(kBatchUnreadable, errno);
      return 0;
    }
    if (int rc = performLine(text.get(), listPath, done, checkpoint.get()); rc != 0) return rc;
  }
}

int performListHere(const std::string &listPath) {
  std::string text;
  if (!readWholeFile(listPath, &text)) return errno;
  const int32_t phase = settings.phase;
  const bool topDir = settings.topDir;
  settings.phase = kPhaseMain;
  settings.topDir = false;
  int rc = 0;
  for (size_t position = 0; rc == 0 && position < text.size();) {
    ListRecordFields record;
    OpString op;
    if (!parseListRecord(text, &position, &record) || !parseOpString(record.opString, &op)) {
      traceLog("Invalid record %zu in %s\n", position, listPath.c_str());
      rc = errno = EINVAL;
      break;
    }
    errno = 0;
    const BatchLine line{record.ino, std::string(record.opString), std::string(record.path)};
    rc = perform(line, op);
    if (rc == 0) continue;
    const int err = errno != 0 ? errno : rc > 0 ? rc : EIO;
    operationFailed(line, op, err);
    markUnfinished(line.path, line.ino, op);
    errno = err;
  }
  settings.phase = phase;
  settings.topDir = topDir;
  return rc;
}
