#include "oplist/move_back_lists.h"

#include <cerrno>
#include <string>

#include "record/aggregate.h"
#include "record/record_format.h"
#include "run/progress.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

std::unique_ptr<WorkFile> regMvfP, dirMvfP;

namespace {

std::vector<uint64_t> dir_moves;

int openOnce(std::unique_ptr<WorkFile> &stream, const char *name) {
  if (stream) return 0;
  stream = WorkFile::open(workPath(name), WorkFile::Mode::kTruncate);
  return stream ? 0 : errno;
}

}  // namespace

int ListRegMoveBack(uint64_t ino) {
  int code = 0;
  const bool fresh = !regMvfP;
  int rc = openOnce(regMvfP, kRegMoveList);
  if (rc != 0) {
    code = 1;
  } else {
    if (fresh) code = 2;
    AggregateCounter counter = aggregates.regMv;
    counter.countRecord(settings.unitSize);
    if (writeListRecord(*regMvfP, counter.iAgg, ino, tempLocation(ino), formatOpString(kOpMoveFile)) !=
        0) {
      code = 3;
      rc = errno;
    } else {
      aggregates.regMv = counter;
      reportOpCount(false);
    }
  }
  traceLog("ListRegMoveBack: ino %lld, regMvfP %x, shareDir %src %d, code %d, err %d\n",
           static_cast<long long>(ino),
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(regMvfP.get())), settings.shareDir.c_str(),
           rc, code, rc);
  errno = rc;
  return rc;
}

int ListDirMoveBack(uint64_t ino) {
  int code = 0;
  int rc = openOnce(dirMvfP, kDirMoveList);
  if (rc != 0) {
    code = 1;
  } else if (dirMvfP->append(std::to_string(ino) + "\n") != 0) {
    code = 2;
    rc = errno;
  } else {
    dir_moves.push_back(ino);
    reportOpCount(false);
  }
  traceLog("ListDirMoveBack: rc %d, code %d, err %d\n", rc, code, rc);
  errno = rc;
  return rc;
}

const std::vector<uint64_t> &listedDirMoves() {
  return dir_moves;
}
