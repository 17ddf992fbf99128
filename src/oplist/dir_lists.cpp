#include "oplist/dir_lists.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>
#include <vector>

#include "oplist/data_ranges.h"
#include "record/aggregate.h"
#include "record/record_format.h"
#include "run/progress.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

int32_t dirDepth = 0;

namespace {

// A list of a set: of one depth, its records or its moves.
struct ListName {
  uint64_t rootIno;
  int32_t depth;
  bool isDelDir, moves;

  bool operator==(const ListName &) const = default;
  std::string path() const {
    return moves ? dirSetMoveList(rootIno, isDelDir, depth) : dirSetList(rootIno, isDelDir, depth);
  }
};

struct OpenList {
  ListName name;
  std::unique_ptr<WorkFile> file;
};

// The lists written to last, the latest first. A walk goes up and down a few of them.
constexpr size_t kOpenLists = 32;
std::vector<OpenList> openLists;

// Opens a list of a set for appending, making the set's directory for its first list.
std::unique_ptr<WorkFile> openSetList(const ListName &name) {
  const std::string list_path = name.path();
  std::unique_ptr<WorkFile> list = WorkFile::open(list_path, WorkFile::Mode::kKeep);
  std::string failed = list_path;
  if (!list && errno == ENOENT) {
    std::string set = dirSet(name.rootIno, name.isDelDir);
    if (int err = makeWorkDirectory(set)) {
      failed = set;
      errno = err;
    } else {
      list = WorkFile::open(list_path, WorkFile::Mode::kKeep);
    }
  }
  if (!list) {
    int err = errno;
    traceLog("DirListRecord: create %s failed, err %d\n", failed.c_str(), err);
    errno = err;
  }
  return list;
}

// The open list, or null and errno.
WorkFile *setList(const ListName &name) {
  auto found = std::find_if(openLists.begin(), openLists.end(),
                            [&name](const OpenList &list) { return list.name == name; });
  if (found == openLists.end()) {
    if (openLists.size() == kOpenLists) {
      int rc = 0;
      closeWorkFile(openLists.back().file, openLists.back().name.path(), &rc);
      openLists.pop_back();
      if (rc != 0) {
        errno = rc;
        return nullptr;
      }
    }
    std::unique_ptr<WorkFile> file = openSetList(name);
    if (!file) return nullptr;
    found = openLists.insert(openLists.end(), {name, std::move(file)});
  }
  std::rotate(openLists.begin(), found, found + 1);
  return openLists.front().file.get();
}

ListResult addPlainRecord(WorkFile &list, const std::string &path, uint64_t ino, OpCode op, int code) {
  aggregates.main.countRecord(settings.unitSize);
  if (writeListRecord(list, aggregates.main.iAgg, ino, path, formatOpString(op)) != 0)
    return {errno, code};
  reportOpCount(false);
  return {};
}

ListResult listOne(uint64_t rootIno, const std::string &path, uint64_t ino, OpCode opCode,
                   bool isDelDir) {
  const bool moves = opCode == kOpMoveFile;
  WorkFile *list = nullptr;
  if (opCode != kOpRestoreDelFile) {
    list = setList({rootIno, dirDepth, isDelDir, moves});
    if (!list) return {errno, moves ? 51 : 1};
  }
  const RangeWriter writer{"DirListRecord", list, 151};
  switch (opCode) {
    case kOpMoveFile:
      return addPlainRecord(*list, path, ino, opCode, 52);
    case kOpRestoreDiffFile:
      return listChangedFile(writer, path, ino);
    case kOpRestoreDelFile:
      return listDeletedFile(writer, path, ino);
    default:
      return addPlainRecord(*list, path, ino, opCode, 2);
  }
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

void closeDirLists(int *rc) {
  for (OpenList &list : openLists) closeWorkFile(list.file, list.name.path(), rc);
  openLists.clear();
}
