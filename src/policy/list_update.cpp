#include "policy/list_update.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

#include "base/file_io.h"
#include "formats/checkpoint.h"
#include "formats/list_record.h"
#include "formats/operation.h"
#include "formats/work_names.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

// What a checkpoint says about a record. Two records of a list can have equal keys.
struct RecordKey {
  uint64_t ino = 0;
  int64_t offset = 0;
  uint64_t length = 0;
  uint8_t opCode = 0, holeFound = 0, clone = 0;

  auto operator<=>(const RecordKey &) const = default;
};

// Returns false if the op string names no operation.
bool makeRecordKey(uint64_t ino, std::string_view opString, RecordKey *key) {
  Operation op;
  if (!parseOpString(opString, &op)) return false;
  for (const int32_t number : {op.opCode, op.holeFound, op.clone})
    if (number < 0 || number > UINT8_MAX) return false;
  *key = {ino,
          op.offset,
          op.length,
          static_cast<uint8_t>(op.opCode),
          static_cast<uint8_t>(op.holeFound),
          static_cast<uint8_t>(op.clone)};
  return true;
}

// The records that checkpoints show as done. A list can be of any length, so a record takes only 32
// bytes in one vector. Call order: all add, then sort, then all count, then isDone.
class DoneRecords {
 public:
  // Reserves address space for `records` entries; the kernel provides the memory only as they are
  // added.
  void reserve(size_t records) { entries_.reserve(records); }
  void add(const RecordKey &key) { entries_.push_back({{key}, 0}); }
  void sort();
  // Counts a record of the list.
  void count(const RecordKey &key);
  // Returns true if the record was performed. That is known only if no other record of the list has its
  // key.
  bool isDone(const RecordKey &key) const;
  void trace() const;

 private:
  struct Entry : RecordKey {
    uint8_t in_list = 0;  // records of the list with this key; 2 means several
  };
  static_assert(sizeof(Entry) == 32);

  std::vector<Entry> entries_;
};

void DoneRecords::sort() {
  std::sort(entries_.begin(), entries_.end());
  entries_.erase(std::unique(entries_.begin(), entries_.end()), entries_.end());
}

void DoneRecords::count(const RecordKey &key) {
  const auto found = std::lower_bound(entries_.begin(), entries_.end(), key);
  if (found != entries_.end() && *found == key && found->in_list < 2) ++found->in_list;
}

bool DoneRecords::isDone(const RecordKey &key) const {
  const auto found = std::lower_bound(entries_.begin(), entries_.end(), key);
  return found != entries_.end() && *found == key && found->in_list == 1;
}

void DoneRecords::trace() const {
  int index = 0;
  for (const Entry &key : entries_) {
    const std::string op =
        formatOpString({key.opCode, key.offset, key.length, key.holeFound, key.clone});
    traceLog("updateOpList: [%d] ino %lld opString %s\n", index++, static_cast<long long>(key.ino),
             op.c_str());
  }
}

enum UpdateStep : int {
  kOpenList = 1,
  kWriteRest = 2,  // opening and closing the new list
  kReadCheckpoint = 4,
  kBadCheckpoint = 5,
  kTakeOver = 6,  // reading a record, or writing it to the new list
  kKeepOriginal = 7,
  kRemoveList = 8,
  kReplaceList = 9,
  kFindCheckpoints = 31,
};

class Update {
 public:
  Update(const std::string &list, int32_t pid) : list_(list), rest_(rewrittenList(list)), pid_(pid) {}

  Result run();

 private:
  Result readCheckpoints();
  Result readCheckpointFile(const std::string &file, int *total);
  Result addCheckpoint(std::string_view line, int count, const std::string &file);
  Result nextRecord(ListedRecord *record, RecordKey *key, bool *end);
  Result countAlike();
  Result writePending(WorkFile &rest);
  Result exchange();

  const std::string list_, rest_;
  const int32_t pid_;
  ListReader reader_;
  DoneRecords done_;
};

Result Update::run() {
  if (Result r = openList(list_, &reader_); !r) return failed(kOpenList, r.err);
  std::unique_ptr<WorkFile> rest;
  if (Result r = WorkFile::open(rest_, WorkFile::Mode::kTruncate, &rest); !r)
    return failed(kWriteRest, r.err);
  if (Result r = readCheckpoints(); !r) return r;
  // Read the list twice: a record can be dropped only if no other record has its key.
  if (Result r = countAlike(); !r) return r;
  if (Result r = writePending(*rest); !r) return r;
  if (Result r = closeWorkFile(rest, rest_); !r) return failed(kWriteRest, r.err);
  return exchange();
}

Result Update::readCheckpoints() {
  std::vector<std::string> files;
  if (Result r = findCheckpointFiles(pid_, &files); !r) return failed(kFindCheckpoints, r.err);
  uint64_t bytes = 0;
  for (const std::string &file : files) {
    struct stat st;
    if (Result r = statWorkFile(file, &st); !r) return failed(kReadCheckpoint, r.err);
    bytes += static_cast<uint64_t>(st.st_size);
  }
  done_.reserve(bytes / kCheckpointLineMin);
  int total = 0;
  for (const std::string &file : files)
    if (Result r = readCheckpointFile(file, &total); !r) return r;
  traceLog("updateOpList: add %d ino from to list.\n", total);
  done_.sort();
  if (settings.Verb) done_.trace();
  return {};
}

Result Update::readCheckpointFile(const std::string &file, int *total) {
  traceLog("UpdateOpList: find a checkpoint file %s\n", file.c_str());
  UniqueFd fd;
  if (Result r = openWorkFile(file, O_RDONLY, &fd); !r) return failed(kReadCheckpoint, r.err);
  FileReader reader;
  reader.open(std::move(fd));
  for (int count = 0;; ++count) {
    std::string_view text;
    if (Result r = reader.peek(kCheckpointLineMax, &text); !r) return failed(kReadCheckpoint, r.err);
    if (text.empty()) {
      traceLog("updateOpList: add %d ino to list from %s\n", count, file.c_str());
      *total += count;
      return {};
    }
    const std::string_view line(text.substr(0, std::min(text.find('\n'), kCheckpointLineMax)));
    reader.skip(std::min(line.size() + 1, text.size()));
    if (Result r = addCheckpoint(line, count, file); !r) return r;
  }
}

Result Update::addCheckpoint(std::string_view line, int count, const std::string &file) {
  uint64_t ino = 0;
  std::string_view op;
  RecordKey key;
  if (line.size() >= kCheckpointLineMax || !parseCheckpointLine(line, &ino, &op) ||
      !makeRecordKey(ino, op, &key)) {
    traceLog("UpdateOpList: Invalid record %d in %s, buffer %s\n", count, file.c_str(),
             std::string(line).c_str());
    return failed(kBadCheckpoint, EINVAL);
  }
  done_.add(key);
  if (settings.Verb) {
    traceLog("UpdateOpList: add ino %lld, opString %s to job list.\n", static_cast<long long>(ino),
             std::string(op).c_str());
  }
  return {};
}

// Reads the next record of the list and its key. Sets *end after the last one.
Result Update::nextRecord(ListedRecord *record, RecordKey *key, bool *end) {
  const Result read = reader_.next(record, end);
  if (read && (*end || makeRecordKey(record->ino, record->opString, key))) return {};
  constexpr size_t kShown = 256;  // bytes of the damaged text
  const std::string text =
      read ? std::string(record->whole.substr(0, kShown)) : reader_.textHere(kShown);
  traceLog("updateOpList:Invalid record %d in %s, buffer %s\n", 0, list_.c_str(), text.c_str());
  return failed(kTakeOver, read ? EINVAL : read.err);
}

// Two records can have equal keys, for example two names of one inode. A checkpoint then does not tell
// which of them is done, so both are performed again. Every operation is idempotent, so that is safe.
Result Update::countAlike() {
  ListedRecord record;
  RecordKey key;
  for (bool end = false;;) {
    if (Result r = nextRecord(&record, &key, &end); !r || end) return r;
    done_.count(key);
  }
}

Result Update::writePending(WorkFile &rest) {
  reader_.seek(0);
  ListedRecord record;
  RecordKey key;
  for (bool end = false;;) {
    if (Result r = nextRecord(&record, &key, &end); !r || end) return r;
    if (done_.isDone(key)) continue;
    traceLog("updateOpList: pending job, ino %lld, opString %s\n", static_cast<long long>(record.ino),
             std::string(record.opString).c_str());
    if (Result r = rest.append(record.whole); !r) return failed(kTakeOver, r.err);
  }
}

// The first update keeps the original list under another name; later ones replace the shortened list.
Result Update::exchange() {
  const std::string original = originalList(list_);
  struct stat st;
  const Result kept = statWorkFile(original, &st);
  if (!kept && kept.err == ENOENT) {
    if (Result r = renameWorkFile(list_, original); !r) {
      traceLog("updateOpList: Cannot rename orig opList from %s to %s\n", list_.c_str(),
               original.c_str());
      return failed(kKeepOriginal, r.err);
    }
  } else if (Result r = unlinkWorkFile(list_); !r) {
    return failed(kRemoveList, r.err);
  }
  if (Result r = renameWorkFile(rest_, list_); !r) {
    traceLog("updateOpList: Cannot rename tmp opList from %s to %s\n", rest_.c_str(), list_.c_str());
    return failed(kReplaceList, r.err);
  }
  return {};
}

}  // namespace

Result findCheckpointFiles(int32_t pid, std::vector<std::string> *paths) {
  const std::string prefix = checkpointPrefix(pid);
  const std::string dir_path = workPath(kCheckpointDir);
  Dir dir;
  if (Result r = openWorkList(dir_path, &dir); !r) {
    traceLog("couldn't open checkpoint dir %s\n", dir_path.c_str());
    return r;
  }
  for (const dirent *entry = nullptr;;) {
    if (Result r = nextEntry(dir, &entry); !r || entry == nullptr) return r;
    if (std::string_view(entry->d_name).starts_with(prefix))
      paths->push_back(dir_path + "/" + entry->d_name);
  }
}

Result updateOpList(const std::string &opListPath, int32_t pid) {
  traceLog("updateOpList: origOpList %s\n", opListPath.c_str());
  const Result result = Update(opListPath, pid).run();
  if (!result) {
    traceLog("updateOpList: path %s, rc %d, code %d, err %d\n", opListPath.c_str(), result.rc,
             result.code, result.err);
  }
  return result;
}
