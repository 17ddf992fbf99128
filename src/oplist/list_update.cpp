#include "oplist/list_update.h"

#include <dirent.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "record/checkpoint.h"
#include "record/record_format.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

// A performed record as checkpoints name it.
using Record = std::pair<uint64_t, std::string>;
struct RecordHash {
  size_t operator()(const Record &record) const {
    return std::hash<uint64_t>()(record.first) * 31 + std::hash<std::string>()(record.second);
  }
};
using RecordSet = std::unordered_set<Record, RecordHash>;

class Update {
 public:
  Update(const std::string &list, int32_t pid) : list_(list), temp_(list + ".tmp"), pid_(pid) {}

  int run() {
    traceLog("updateOpList: origOpList %s\n", list_.c_str());
    if (!readWholeFile(list_, &text_)) return fail(1);
    std::unique_ptr<WorkFile> temp = WorkFile::open(temp_, WorkFile::Mode::kTruncate);
    if (!temp) return fail(2);
    if (int rc = readCheckpoints()) return rc;
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
    const std::string dir_path = workPath(kCheckpointDir);
    const std::string prefix = checkpointPrefix(pid_);
    DIR *dir = opendir(dir_path.c_str());
    if (!dir) {
      int err = errno;
      traceLog("couldn't open checkpoint dir %s\n", dir_path.c_str());
      errno = err;
      return fail(31);
    }
    std::vector<std::string> files;
    errno = 0;
    while (const dirent *entry = readdir(dir)) {
      if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0) {
        files.push_back(dir_path + "/" + entry->d_name);
      }
      errno = 0;
    }
    const int read_error = errno;
    closedir(dir);
    errno = read_error;
    if (read_error != 0) return fail(31);
    int total = 0;
    for (const std::string &file : files) {
      if (int rc = readCheckpointFile(file, &total)) return rc;
    }
    traceLog("updateOpList: add %d ino from to list.\n", total);
    if (settings.Verb) {
      int index = 0;
      for (const Record &record : done_) {
        traceLog("updateOpList: [%d] ino %lld opString %s\n", index++,
                 static_cast<long long>(record.first), record.second.c_str());
      }
    }
    return 0;
  }

  int readCheckpointFile(const std::string &file, int *total) {
    traceLog("UpdateOpList: find a checkpoint file %s\n", file.c_str());
    std::string text;
    if (!readWholeFile(file, &text)) return fail(4);
    int count = 0;
    for (size_t start = 0; start < text.size();) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      std::string_view line(text.data() + start, end - start);
      uint64_t ino = 0;
      std::string_view op;
      if (!parseCheckpointLine(line, &ino, &op)) {
        traceLog("UpdateOpList: Invalid record %d in %s, buffer %s\n", count, file.c_str(),
                 std::string(line).c_str());
        errno = EINVAL;
        return fail(5);
      }
      done_.emplace(ino, op);
      if (settings.Verb) {
        traceLog("UpdateOpList: add ino %lld, opString %s to job list.\n", static_cast<long long>(ino),
                 std::string(op).c_str());
      }
      ++count;
      start = end + 1;
    }
    traceLog("updateOpList: add %d ino to list from %s\n", count, file.c_str());
    *total += count;
    return 0;
  }

  int invalidRecord(size_t position) {
    traceLog("updateOpList:Invalid record %d in %s, buffer %s\n", 0, list_.c_str(),
             text_.substr(position, 256).c_str());
    errno = EINVAL;
    return fail(6);
  }

  int writePending(WorkFile &temp) {
    // Two records may look alike to a checkpoint (two names of one inode): done is then not known of
    // either, and both are performed again.
    std::unordered_map<Record, int, RecordHash> alike;
    ListRecordFields record;
    for (size_t position = 0; position < text_.size();) {
      if (!parseListRecord(text_, &position, &record)) return invalidRecord(position);
      ++alike[{record.ino, std::string(record.opString)}];
    }
    for (size_t position = 0; position < text_.size();) {
      if (!parseListRecord(text_, &position, &record)) return invalidRecord(position);
      Record key{record.ino, std::string(record.opString)};
      if (done_.count(key) != 0 && alike[key] == 1) continue;
      traceLog("updateOpList: pending job, ino %lld, opString %s\n", static_cast<long long>(record.ino),
               key.second.c_str());
      if (temp.append(record.whole) != 0) return fail(6);
    }
    return 0;
  }

  int exchange() {
    const std::string saved = list_ + ".orig";
    struct stat st;
    if (lstat(saved.c_str(), &st) != 0 && errno == ENOENT) {
      if (rename(list_.c_str(), saved.c_str()) != 0) {
        int err = errno;
        traceLog("updateOpList: Cannot rename orig opList from %s to %s\n", list_.c_str(),
                 saved.c_str());
        errno = err;
        return fail(7);
      }
    } else if (int rc = remove(list_.c_str())) {
      return fail(8, rc);
    }
    if (rename(temp_.c_str(), list_.c_str()) != 0) {
      int err = errno;
      traceLog("updateOpList: Cannot rename tmp opList from %s to %s\n", temp_.c_str(), list_.c_str());
      errno = err;
      return fail(9);
    }
    return 0;
  }

  const std::string list_, temp_;
  const int32_t pid_;
  std::string text_;
  RecordSet done_;
};

}  // namespace

int updateOpList(const std::string &opListPath, int32_t pid) {
  return Update(opListPath, pid).run();
}
