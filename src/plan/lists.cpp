#include "plan/lists.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "formats/dir_move_line.h"
#include "messages/messages.h"
#include "object/places.h"
#include "plan/data_ranges.h"
#include "records/aggregate.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

// Step codes of ListRecord. A list that cannot be opened has none.
enum ListStep : int {
  kRecordDestination = 1,
  kWriteRecord = 2,
  kWriteMove = 52,
  kWriteCopy = 211,  // a record of opList.copy
};

enum SetListStep : int {
  kOpenSetList = 1,
  kWriteSetRecord = 2,
  kOpenSetMoves = 51,
  kWriteSetMove = 52,
  kWriteSetCopy = 151,  // a record of opList.copy
};

// kOpenedRegMoves is no failure: it marks the trace line of the first record.
enum RegMoveStep : int { kOpenRegMoves = 1, kOpenedRegMoves = 2, kWriteRegMove = 3 };

enum DirMoveStep : int { kOpenDirMoves = 1, kWriteDirMove = 2 };

// The names of the lists in messages.
constexpr char kOpListLabel[] = "opList", kCopyListLabel[] = "cpList", kRegMovesLabel[] = "regMv",
               kDirMovesLabel[] = "dirMv";

constexpr RangeWriter kMainWriter{"ListRecord", kWriteCopy}, kSetWriter{"DirListRecord", kWriteSetCopy};

// Opens a list for the master and prints a message after a failure.
Result openMainList(const char *name, WorkFile::Mode mode, std::unique_ptr<WorkFile> *list) {
  const std::string path = workPath(name);
  const Result result = WorkFile::open(path, mode, list);
  if (!result)
    userMessage(Message::kFileError, path,
                messageText(Message::kOpenFailed) + std::string(": ") + strerror(result.err));
  return result;
}

// Writes one record without a data range.
Result addPlainRecord(WorkFile &list, const std::string &path, uint64_t ino, OpCode op) {
  aggregates.main.countRecord(settings.unitSize);
  const Result result = list.appendRecord(aggregates.main.iAgg, ino, path, {.opCode = op});
  if (result) reportOpCount(false);
  return result;
}

// Opens a list that stays open until the driver closes it.
Result openOnce(const char *name, std::unique_ptr<WorkFile> *list) {
  if (*list) return {};
  return WorkFile::open(workPath(name), WorkFile::Mode::kTruncate, list);
}

// Names a list in the set of a top directory: the records or the moves of one depth.
struct SetListName {
  uint64_t rootIno;
  int32_t depth;
  bool isDelDir, moves;

  bool operator==(const SetListName &) const = default;
  std::string path() const {
    return moves ? dirSetMoveList(rootIno, isDelDir, depth) : dirSetList(rootIno, isDelDir, depth);
  }
};

// Opens a list of a set for appending. Creates the set's directory for its first list.
Result openSetList(const SetListName &name, std::unique_ptr<WorkFile> *list) {
  const std::string list_path = name.path();
  std::string failed_path = list_path;
  Result result = WorkFile::open(list_path, WorkFile::Mode::kKeep, list);
  if (!result && result.err == ENOENT) {
    const std::string set = dirSet(name.rootIno, name.isDelDir);
    result = makeWorkDirectory(set);
    if (!result) {
      failed_path = set;
    } else {
      result = WorkFile::open(list_path, WorkFile::Mode::kKeep, list);
    }
  }
  if (!result) traceLog("DirListRecord: create %s failed, err %d\n", failed_path.c_str(), result.err);
  return result;
}

}  // namespace

class MasterLists::SetLists {
 public:
  // Returns the open list, or opens it.
  Result get(const SetListName &name, WorkFile **list) {
    auto found = std::find_if(open_.begin(), open_.end(),
                              [&name](const OpenList &one) { return one.name == name; });
    if (found == open_.end()) {
      if (open_.size() == kMostOpen) {
        const Result closed = closeOne(open_.back());
        open_.pop_back();
        if (!closed) return closed;
      }
      std::unique_ptr<WorkFile> file;
      if (Result r = openSetList(name, &file); !r) return r;
      found = open_.insert(open_.end(), {name, std::move(file)});
    }
    std::rotate(open_.begin(), found, found + 1);
    *list = open_.front().file.get();
    return {};
  }

  Result closeAll() {
    Result result;
    for (OpenList &one : open_) result = firstFailure(result, closeOne(one));
    open_.clear();
    return result;
  }

 private:
  struct OpenList {
    SetListName name;
    std::unique_ptr<WorkFile> file;
  };
  static Result closeOne(OpenList &list) { return closeWorkFile(list.file, list.name.path()); }

  // The open lists, most recently used first. A walk moves up and down between few of them, and the
  // number of descriptors is limited.
  static constexpr size_t kMostOpen = 32;
  std::vector<OpenList> open_;
};

MasterLists::MasterLists() : sets_(std::make_unique<SetLists>()) {}
MasterLists::~MasterLists() = default;

Result MasterLists::openForPass() {
  const auto copies = settings.pass == 1 ? WorkFile::Mode::kTruncate : WorkFile::Mode::kKeep;
  if (Result r = openMainList(kOpList, WorkFile::Mode::kTruncate, &op_list_); !r) return r;
  return openMainList(kOpListCopy, copies, &copy_list_);
}

Result MasterLists::closePass() {
  Result result = closeWorkFile(op_list_, kOpListLabel);
  result = firstFailure(result, closeWorkFile(copy_list_, kCopyListLabel));
  result = firstFailure(result, closeWorkFile(move_list_, kOpListMove));
  return firstFailure(result, sets_->closeAll());
}

Result MasterLists::closeRegMoves() {
  return closeWorkFile(reg_moves_, kRegMovesLabel);
}

Result MasterLists::closeDirMoves() {
  return closeWorkFile(dir_move_list_, kDirMovesLabel);
}

Result MasterLists::closeAll() {
  Result result = closePass();
  result = firstFailure(result, closeRegMoves());
  return firstFailure(result, closeDirMoves());
}

// Opens opList.move for the first record of a pass.
Result MasterLists::listMove(const std::string &path, uint64_t ino) {
  if (!move_list_) {
    if (Result r = openMainList(kOpListMove, WorkFile::Mode::kKeep, &move_list_); !r) return r.at(0);
  }
  return addPlainRecord(*move_list_, path, ino, kOpMoveFile).at(kWriteMove);
}

Result MasterLists::listOne(const std::string &path, uint64_t ino, OpCode opCode) {
  switch (opCode) {
    case kOpFetch:
      return fetchFile(path, ino).at(kRecordDestination);
    case kOpMoveFile:
      return listMove(path, ino);
    case kOpRestoreDiffFile:
      return listChangedFile(kMainWriter, *op_list_, path, ino);
    case kOpRestoreDelFile:
      return listDeletedFile(kMainWriter, *copy_list_, path, ino);
    default:
      return addPlainRecord(*op_list_, path, ino, opCode).at(kWriteRecord);
  }
}

Result MasterLists::ListRecord(const std::string &path, uint64_t ino, OpCode opCode) {
  constexpr int kNextOps = 0;  // this field of the trace line always has this value
  const long long number = static_cast<long long>(ino);
  traceLog("ListRecord: path %s, ino %lld, opCode %d, nextOps %d\n", path.c_str(), number, opCode,
           kNextOps);
  const Result result = listOne(path, ino, opCode);
  if (!result) {
    traceLog("ListRecord: path %s, ino %lld, opCode %d, nextOps %d,rc %d, errCode %d, error %d\n",
             path.c_str(), number, opCode, kNextOps, result.rc, result.code, result.err);
  }
  return result;
}

Result MasterLists::listOneInSet(uint64_t rootIno, const std::string &path, uint64_t ino, OpCode opCode,
                                 bool isDelDir) {
  if (opCode == kOpRestoreDelFile) return listDeletedFile(kSetWriter, *copy_list_, path, ino);
  const bool moves = opCode == kOpMoveFile;
  WorkFile *list = nullptr;
  if (Result r = sets_->get({rootIno, dirDepth, isDelDir, moves}, &list); !r)
    return r.at(moves ? kOpenSetMoves : kOpenSetList);
  if (opCode == kOpRestoreDiffFile) return listChangedFile(kSetWriter, *list, path, ino);
  return addPlainRecord(*list, path, ino, opCode).at(moves ? kWriteSetMove : kWriteSetRecord);
}

Result MasterLists::DirListRecord(uint64_t rootIno, const std::string &path, uint64_t ino,
                                  OpCode opCode, bool isDelDir) {
  constexpr int kNextOps = 0;
  const long long root = static_cast<long long>(rootIno), number = static_cast<long long>(ino);
  traceLog(
      "DirListRecord: rootIno %lld, path %s ino %lld opCode %d, nextOps %d isDelDir %d, dirDepth %d\n",
      root, path.c_str(), number, opCode, kNextOps, isDelDir, dirDepth);
  const Result result = listOneInSet(rootIno, path, ino, opCode, isDelDir);
  if (!result) {
    traceLog(
        "DirListRecord: rootIno %lld, path %s ino %lld opCode %d, nextOps %d, rc %d, code %d, err %d "
        "\n",
        root, path.c_str(), number, opCode, kNextOps, result.rc, result.code, result.err);
  }
  return result;
}

Result MasterLists::ListRegMoveBack(uint64_t ino) {
  const bool fresh = !reg_moves_;
  Result result = openOnce(kRegMoveList, &reg_moves_).at(kOpenRegMoves);
  if (result) {
    // Work on a copy: the counter advances only if the record was written.
    AggregateCounter counter = aggregates.regMv;
    counter.countRecord(settings.unitSize);
    result = reg_moves_->appendRecord(counter.iAgg, ino, tempLocation(ino), {.opCode = kOpMoveFile});
    if (result) {
      result.code = fresh ? kOpenedRegMoves : 0;
      aggregates.regMv = counter;
      reportOpCount(false);
    } else {
      result = result.at(kWriteRegMove);
    }
  }
  traceLog("ListRegMoveBack: ino %lld, regMvfP %x, shareDir %src %d, code %d, err %d\n",
           static_cast<long long>(ino),
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(reg_moves_.get())),
           settings.shareDir.c_str(), result.rc, result.code, result.err);
  return result ? Result{} : result;
}

Result MasterLists::ListDirMoveBack(uint64_t ino) {
  Result result = openOnce(kDirMoveList, &dir_move_list_).at(kOpenDirMoves);
  if (result) {
    result = dir_move_list_->append(formatDirMoveLine(ino)).at(kWriteDirMove);
    if (result) {
      dir_moves_.push_back(ino);
      reportOpCount(false);
    }
  }
  traceLog("ListDirMoveBack: rc %d, code %d, err %d\n", result.rc, result.code, result.err);
  return result;
}
