#include "oplist/list_update.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>
#include <vector>

#include "oplist/checkpoint_files.h"
#include "oplist/done_records.h"
#include "record/checkpoint.h"
#include "record/record_format.h"
#include "run/file_reader.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

// No line of a checkpoint file is longer, and none is shorter.
constexpr size_t kCheckpointLineMax = 16384;
constexpr size_t kCheckpointLineMin = 12;

class Update {
 public:
  Update(const std::string &list, int32_t pid) : list_(list), temp_(list + ".tmp"), pid_(pid) {}

  int run() {
    traceLog("updateOpList: origOpList %s\n", list_.c_str());
    if (!reader_.open(list_)) return fail(1);
    std::unique_ptr<WorkFile> temp = WorkFile::open(temp_, WorkFile::Mode::kTruncate);
    if (!temp) return fail(2);
    if (int rc = readCheckpoints()) return rc;
    if (int rc = countAlike()) return rc;
    if (int rc = writePending(*temp)) return rc;
    int rc = 0;
    closeWorkFile(temp, temp_, &rc);
    if (rc != 0) return fail(2);
    return exchange();
  }

 private:
  int fail(int code, int rc = -1) {
    int err = errno;
    traceLog("updateOpList: path %s, rc %d, code %d, err %d\n", list_.c_str(), rc, code, err);
    errno = err;
    return rc;
  }

  int readCheckpoints() {
    std::vector<std::string> files;
    if ((errno = findCheckpointFiles(pid_, &files)) != 0) return fail(31);
    uint64_t bytes = 0;
    for (const std::string &file : files) {
      struct stat st;
      if (statWorkFile(file, &st) != 0) return fail(4);
      bytes += static_cast<uint64_t>(st.st_size);
    }
    done_.reserve(bytes / kCheckpointLineMin);
    int total = 0;
    for (const std::string &file : files) {
      if (int rc = readCheckpointFile(file, &total)) return rc;
    }
    traceLog("updateOpList: add %d ino from to list.\n", total);
    done_.sort();
    if (!settings.Verb) return 0;
    int index = 0;
    done_.visit([&index](const RecordKey &key) {
      const std::string op =
          formatOpString(key.opCode, key.offset, key.length, key.holeFound, key.clone);
      traceLog("updateOpList: [%d] ino %lld opString %s\n", index++, static_cast<long long>(key.ino),
               op.c_str());
    });
    return 0;
  }

  int readCheckpointFile(const std::string &file, int *total) {
    traceLog("UpdateOpList: find a checkpoint file %s\n", file.c_str());
    FileReader reader;
    if (!reader.open(file)) return fail(4);
    for (int count = 0;; ++count) {
      std::string_view text;
      if (!reader.peek(kCheckpointLineMax, &text)) return fail(4);
      if (text.empty()) {
        traceLog("updateOpList: add %d ino to list from %s\n", count, file.c_str());
        *total += count;
        return 0;
      }
      const std::string_view line(text.substr(0, std::min(text.find('\n'), kCheckpointLineMax)));
      reader.skip(std::min(line.size() + 1, text.size()));
      if (int rc = addCheckpoint(line, count, file)) return rc;
    }
  }

  int addCheckpoint(std::string_view line, int count, const std::string &file) {
    uint64_t ino = 0;
    std::string_view op;
    RecordKey key;
    if (line.size() >= kCheckpointLineMax || !parseCheckpointLine(line, &ino, &op) ||
        !makeRecordKey(ino, op, &key)) {
      traceLog("UpdateOpList: Invalid record %d in %s, buffer %s\n", count, file.c_str(),
               std::string(line).c_str());
      errno = EINVAL;
      return fail(5);
    }
    done_.add(key);
    if (settings.Verb) {
      traceLog("UpdateOpList: add ino %lld, opString %s to job list.\n", static_cast<long long>(ino),
               std::string(op).c_str());
    }
    return 0;
  }

  // The next record of the list and its key: 1, 0 at the end, -1 after a failure.
  int nextRecord(ListRecordFields *record, RecordKey *key) {
    const int got = readListRecord(reader_, record);
    if (got == 0) return 0;
    if (got > 0 && makeRecordKey(record->ino, record->opString, key)) return 1;
    const int err = got > 0 ? EINVAL : errno;
    std::string_view text;
    if (got > 0) {
      text = record->whole;
    } else if (!reader_.peek(1, &text)) {
      text = {};
    }
    traceLog("updateOpList:Invalid record %d in %s, buffer %s\n", 0, list_.c_str(),
             std::string(text.substr(0, 256)).c_str());
    errno = err;
    fail(6);
    return -1;
  }

  // Two records may look alike to a checkpoint (two names of one inode): done is then not known of
  // either, and both are performed again.
  int countAlike() {
    ListRecordFields record;
    RecordKey key;
    int got;
    while ((got = nextRecord(&record, &key)) > 0) done_.count(key);
    return got;
  }

  int writePending(WorkFile &temp) {
    reader_.seek(0);
    ListRecordFields record;
    RecordKey key;
    int got;
    while ((got = nextRecord(&record, &key)) > 0) {
      if (done_.isDone(key)) continue;
      traceLog("updateOpList: pending job, ino %lld, opString %s\n", static_cast<long long>(record.ino),
               std::string(record.opString).c_str());
      if (temp.append(record.whole) != 0) return fail(6);
    }
    return got;
  }

  int exchange() {
    const std::string saved = list_ + ".orig";
    struct stat st;
    if (statWorkFile(saved, &st) != 0 && errno == ENOENT) {
      if (renameWorkFile(list_, saved) != 0) {
        int err = errno;
        traceLog("updateOpList: Cannot rename orig opList from %s to %s\n", list_.c_str(),
                 saved.c_str());
        errno = err;
        return fail(7);
      }
    } else if (int rc = unlinkWorkFile(list_)) {
      return fail(8, rc);
    }
    if (renameWorkFile(temp_, list_) != 0) {
      int err = errno;
      traceLog("updateOpList: Cannot rename tmp opList from %s to %s\n", temp_.c_str(), list_.c_str());
      errno = err;
      return fail(9);
    }
    return 0;
  }

  const std::string list_, temp_;
  const int32_t pid_;
  FileReader reader_;
  DoneRecords done_;
};

}  // namespace

int updateOpList(const std::string &opListPath, int32_t pid) {
  return Update(opListPath, pid).run();
}
