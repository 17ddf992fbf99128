#include "oplist/main_lists.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cfgmgr/messages.h"
#include "object/path_files.h"
#include "oplist/data_ranges.h"
#include "record/aggregate.h"
#include "record/record_format.h"
#include "run/progress.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

std::unique_ptr<WorkFile> opListP, cpListP, cpDeltaP;

namespace {

// One record without a data range. 0 or an errno.
int addPlainRecord(WorkFile &list, const std::string &path, uint64_t ino, OpCode op) {
  aggregates.main.countRecord(settings.unitSize);
  if (writeListRecord(list, aggregates.main.iAgg, ino, path, formatOpString(op)) != 0) return errno;
  reportOpCount(false);
  return 0;
}

ListResult listMove(const std::string &path, uint64_t ino) {
  std::string list_path = workPath(kOpListMove);
  std::unique_ptr<WorkFile> list = WorkFile::open(list_path, WorkFile::Mode::kShared);
  if (!list) {
    int err = errno;
    userMessage(Message::kFileError, list_path, messageText(Message::kOpenFailed));
    errno = err;
    return {err, 0};
  }
  ListResult result;
  if (int err = addPlainRecord(*list, path, ino, kOpMoveFile)) result = {err, 52};
  closeWorkFile(list, kOpListMove, &result.rc);
  return result;
}

ListResult listOne(const std::string &path, uint64_t ino, OpCode opCode) {
  const RangeWriter writer{"ListRecord", opListP.get(), 211};
  switch (opCode) {
    case kOpFetch:
      return {fetchFile(path, ino), 1};
    case kOpMoveFile:
      return listMove(path, ino);
    case kOpRestoreDiffFile:
      return listChangedFile(writer, path, ino);
    case kOpRestoreDelFile:
      return listDeletedFile(writer, path, ino);
    default:
      return {addPlainRecord(*opListP, path, ino, opCode), 2};
  }
}

}  // namespace

int ListRecord(const std::string &path, uint64_t ino, OpCode opCode, int nextOps) {
  traceLog("ListRecord: path %s, ino %lld, opCode %d, nextOps %d\n", path.c_str(),
           static_cast<long long>(ino), opCode, nextOps);
  ListResult result = listOne(path, ino, opCode);
  if (result.rc != 0) {
    int err = errno;
    traceLog("ListRecord: path %s, ino %lld, opCode %d, nextOps %d,rc %d, errCode %d, error %d\n",
             path.c_str(), static_cast<long long>(ino), opCode, nextOps, result.rc, result.code, err);
    errno = err;
  }
  return result.rc;
}
