#include "oplist/dir_lists.h"

#include <cerrno>

#include "oplist/data_ranges.h"
#include "record/aggregate.h"
#include "record/record_format.h"
#include "run/progress.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

int32_t dirDepth = 0;

namespace {

// Opens a list of the set for appending, making the set's directory for its first list.
std::unique_ptr<WorkFile> openSetList(const std::string &list_path, uint64_t rootIno, bool isDelDir) {
  std::unique_ptr<WorkFile> list = WorkFile::open(list_path, WorkFile::Mode::kShared);
  std::string failed = list_path;
  if (!list && errno == ENOENT) {
    std::string set = dirSet(rootIno, isDelDir);
    if (int err = makeWorkDirectory(set)) {
      failed = set;
      errno = err;
    } else {
      list = WorkFile::open(list_path, WorkFile::Mode::kShared);
    }
  }
  if (!list) {
    int err = errno;
    traceLog("DirListRecord: create %s failed, err %d\n", failed.c_str(), err);
    errno = err;
  }
  return list;
}

ListResult addPlainRecord(WorkFile &list, const std::string &path, uint64_t ino, OpCode op, int code) {
  aggregates.main.countRecord(settings.unitSize);
  if (writeListRecord(list, aggregates.main.iAgg, ino, path, formatOpString(op)) != 0)
    return {errno, code};
  reportOpCount(false);
  return {};
}

ListResult listMove(uint64_t rootIno, const std::string &path, uint64_t ino, bool isDelDir) {
  std::unique_ptr<WorkFile> list =
      openSetList(dirSetMoveList(rootIno, isDelDir, dirDepth), rootIno, isDelDir);
  if (!list) return {errno, 51};
  ListResult result = addPlainRecord(*list, path, ino, kOpMoveFile, 52);
  closeWorkFile(list, "dir.move", &result.rc);
  return result;
}

ListResult listOne(uint64_t rootIno, const std::string &path, uint64_t ino, OpCode opCode,
                   bool isDelDir) {
  std::unique_ptr<WorkFile> list =
      openSetList(dirSetList(rootIno, isDelDir, dirDepth), rootIno, isDelDir);
  if (!list) return {errno, 1};
  const RangeWriter writer{"DirListRecord", list.get(), 151, 15};
  ListResult result;
  switch (opCode) {
    case kOpMoveFile:
      result = listMove(rootIno, path, ino, isDelDir);
      break;
    case kOpRestoreDiffFile:
      result = listChangedFile(writer, path, ino);
      break;
    case kOpRestoreDelFile:
      result = listDeletedFile(writer, path, ino);
      break;
    default:
      result = addPlainRecord(*list, path, ino, opCode, 2);
  }
  closeWorkFile(list, "DirListRecord", &result.rc);
  return result;
}

}  // namespace

int DirListRecord(uint64_t rootIno, const std::string &path, uint64_t ino, OpCode opCode, int nextOps,
                  bool isDelDir) {
  traceLog(
      "DirListRecord: rootIno %lld, path %s ino %lld opCode %d, nextOps %d isDelDir %d, dirDepth %d\n",
      static_cast<long long>(rootIno), path.c_str(), static_cast<long long>(ino), opCode, nextOps,
      isDelDir, dirDepth);
  ListResult result = listOne(rootIno, path, ino, opCode, isDelDir);
  if (result.rc != 0) {
    int err = errno;
    traceLog(
        "DirListRecord: rootIno %lld, path %s ino %lld opCode %d, nextOps %d, rc %d, code %d, err %d "
        "\n",
        static_cast<long long>(rootIno), path.c_str(), static_cast<long long>(ino), opCode, nextOps,
        result.rc, result.code, err);
    errno = err;
  }
  return result.rc;
}
