#include "restore/late_lists.h"

#include <string.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "formats/dir_move_line.h"
#include "formats/list_record.h"
#include "messages/messages.h"
#include "object/move_file.h"
#include "object/places.h"
#include "records/side_lists.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

// ---- clone lists

Result listedCloneDepths(CloneLists kind, std::vector<int> *depths) {
  const bool deletions = kind == CloneLists::kDelete;
  const int deepest = deletions ? kDeepestDeleted : kDeepestRestored;
  depths->clear();
  Dir dir;
  if (Result r = openWorkList(settings.shareDir, &dir); !r) return r;
  for (;;) {
    const dirent *entry = nullptr;
    if (Result r = nextEntry(dir, &entry); !r) return r;
    if (!entry) break;
    const std::optional<int> depth =
        deletions ? parseCloneDeleteList(entry->d_name) : parseCloneList(entry->d_name);
    if (!depth) continue;
    if (*depth > deepest) {
      userMessage(Message::kCloneListTooDeep, deepest, workPath(entry->d_name));
      return errnoResult(EINVAL);
    }
    depths->push_back(*depth);
  }
  std::sort(depths->begin(), depths->end());
  if (deletions) std::reverse(depths->begin(), depths->end());
  return {};
}

// ---- dir.new

namespace {

using Position = uint64_t;
using HashAt = std::pair<size_t, Position>;
using Identity = std::pair<uint64_t, std::string>;  // inode number and path
using Visitor = std::function<Result(const ListedRecord &record, Position position)>;

Result invalidRecord(const ListReader &list, const std::string &from, int err) {
  traceLog("Main: invalid record at byte %llu of %s\n",
           static_cast<unsigned long long>(list.position()), from.c_str());
  return errnoResult(err == EINVAL ? EIO : err);
}

// Visits every record until a visit fails.
Result forEachRecord(const std::string &from, const Visitor &visit) {
  ListReader list;
  if (Result r = openList(from, &list); !r) return r;
  for (;;) {
    const Position position = list.position();
    ListedRecord record;
    bool end = false;
    if (Result r = list.next(&record, &end); !r) return invalidRecord(list, from, r.err);
    if (end) return {};
    if (Result r = visit(record, position); !r) return r;
  }
}

size_t hashOf(const ListedRecord &record) {
  return std::hash<std::string_view>()(record.path) ^ (record.ino * 0x9e3779b97f4a7c15u);
}

// Among records with equal hashes, adds those that repeat the directory of an earlier one.
Result addRepeated(ListReader &list, std::span<const HashAt> alike, std::vector<Position> *repeated) {
  std::vector<Identity> seen;
  for (const auto &[hash, position] : alike) {
    list.seek(position);
    ListedRecord record;
    bool end = false;
    if (Result r = list.next(&record, &end); !r) return r;
    if (end) return errnoResult(EIO);
    Identity identity(record.ino, record.path);
    if (std::find(seen.begin(), seen.end(), identity) != seen.end()) {
      repeated->push_back(position);
    } else {
      seen.push_back(std::move(identity));
    }
  }
  return {};
}

// Finds the positions, in order, of records that repeat the directory of an earlier one. Takes 16 bytes
// of memory for each record, because a hash and a position suffice to find candidates.
Result findRepeated(const std::string &from, std::vector<Position> *repeated) {
  std::vector<HashAt> hashes;
  const auto note = [&hashes](const ListedRecord &record, Position position) {
    hashes.emplace_back(hashOf(record), position);
    return Result{};
  };
  if (Result r = forEachRecord(from, note); !r) return r;
  std::sort(hashes.begin(), hashes.end());
  ListReader list(kListRecordMax);
  if (Result r = openList(from, &list); !r) return r;
  for (size_t first = 0, last; first < hashes.size(); first = last) {
    for (last = first + 1; last < hashes.size() && hashes[last].first == hashes[first].first;) ++last;
    if (last - first == 1) continue;
    const std::span alike(&hashes[first], last - first);
    if (Result r = addRepeated(list, alike, repeated); !r) return r;
  }
  std::sort(repeated->begin(), repeated->end());
  return {};
}

}  // namespace

Result takeDirRecords(const std::string &from, const std::string &to) {
  std::vector<Position> repeated;
  if (Result r = findRepeated(from, &repeated); !r) return r;
  std::unique_ptr<WorkFile> list;
  if (Result r = WorkFile::open(to, WorkFile::Mode::kTruncate, &list); !r) return r;
  const auto take = [&](const ListedRecord &record, Position position) {
    if (std::binary_search(repeated.begin(), repeated.end(), position)) return Result{};
    return list->append(record.whole);
  };
  if (Result r = forEachRecord(from, take); !r) return r;
  if (Result r = closeWorkFile(list, to); !r) return r;
  return unlinkWorkFile(from);
}

// ---- dirMoveList

Result doFinalDirMove() {
  std::string text;
  if (Result r = readWholeFile(workPath(kDirMoveList), &text); !r) {
    traceLog("doFinalDirMove: open dir move list failed err %d\n", r.err);
    return r;
  }
  std::string_view rest = text;
  while (!rest.empty()) {
    if (stopSignal() != 0) return errnoResult(EINTR);
    std::string line;
    uint64_t ino = 0;
    if (!takeDirMoveLine(&rest, &line, &ino)) {
      traceLog("doFinalDirMove: invalid line %s\n", line.c_str());
      return errnoResult(EIO);
    }
    const std::string waiting = tempLocation(ino);
    if (waiting.empty()) return errnoResult(ENAMETOOLONG);
    traceLog("doFinalDirMove: moving %s inoStr %s\n", waiting.c_str(), line.c_str());
    if (Result r = moveFile(waiting, ino, kPhaseDirs, nullptr, false); !r) {
      traceLog("doFinalDirMove: move %s failed, ino %lld\n", waiting.c_str(),
               static_cast<long long>(ino));
      std::string destination;
      if (!readDestination(ino, &destination)) destination = waiting;
      userMessage(Message::kObjectFailed, destination, strerror(r.err));
      return r;
    }
  }
  return {};
}
