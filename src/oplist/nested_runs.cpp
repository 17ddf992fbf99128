#include "oplist/nested_runs.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cfgmgr/messages.h"
#include "oplist/policy_run.h"
#include "record/record_format.h"
#include "run/settings.h"
#include "run/shell_command.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

constexpr size_t kPrefixMax = 1600;  // bytes, terminators included
constexpr size_t kCommandMax = 4096;
constexpr size_t kOptionsMax = 2048;
constexpr int kSmallBatch = 100;           // records
constexpr off_t kSmallList = 1024 * 1024;  // bytes

// The depths that have a list or a move list, from the names in the set's directory. False and errno.
bool listedDepths(const std::string &set, std::vector<int> *depths) {
  Dir dir = openWorkList(set);
  if (!dir) return false;
  errno = 0;
  while (const dirent *entry = readdir(dir.get())) {
    const char *name_end = entry->d_name + strlen(entry->d_name);
    int depth = 0;
    auto [end, error] = std::from_chars(entry->d_name, name_end, depth);
    const std::string_view rest(end, static_cast<size_t>(name_end - end));
    if (error == std::errc() && (rest.empty() || rest == ".move")) depths->push_back(depth);
    errno = 0;
  }
  int err = errno;
  dir.reset();
  errno = err;
  std::sort(depths->begin(), depths->end());
  depths->erase(std::unique(depths->begin(), depths->end()), depths->end());
  return err == 0;
}

// True when the records of the list make one batch without much data. A damaged list is the engine's to
// refuse.
bool isSmall(const std::string &list, off_t size) {
  if (size > kSmallList) return false;
  std::string text;
  if (!readWholeFile(list, &text)) return false;
  ListRecordFields record;
  OpString op;
  int count = 0;
  uint64_t bytes = 0;
  for (size_t position = 0; position < text.size();) {
    if (!parseListRecord(text, &position, &record) || !parseOpString(record.opString, &op))
      return false;
    bytes += op.length;
    if (++count > kSmallBatch || bytes > static_cast<uint64_t>(settings.frameSize)) return false;
  }
  return true;
}

// Runs one list through the engine.
int runEngine(const std::string &set, const std::string &list) {
  const std::string prefix = "/usr/qtx/kest/bin/ktapplypolicy " + shellWord(settings.deviceP) + " -P " +
                             shellWord(set + "/policy");
  const std::string command = prefix + " -g " + shellWord(set) + " -r " + shellWord(list) +
                              " -m 32 -N " + shellWord(settings.nodeSpec) + " " +
                              (settings.Debug ? "" : ">/dev/null");
  const std::string options =
      "-d " + shellWord(settings.deviceP) + " -j " + shellWord(settings.filesetP) + " -o " +
      shellWord(settings.snapOldP) + "  -t " + shellWord(settings.shareDir) + " -s " +
      std::to_string(settings.pass) + " -p 3 -D " + (settings.noXAttr ? "-x" : "") + " " +
      (settings.Debug ? "" : "-q") + " " + (settings.Verb ? "-v" : "") + " " +
      (settings.encryptEA ? "-E" : "");
  if (prefix.size() >= kPrefixMax || command.size() >= kCommandMax || options.size() >= kOptionsMax) {
    userMessage(Message::kCommandTooLong, static_cast<int>(kCommandMax), command);
    errno = E2BIG;
    return E2BIG;
  }
  traceLog("restoreDelNewDir: phase %d pass %d pcCmd %s, exeOpt %s, opListPath %s\n", settings.phase,
           settings.pass, command.c_str(), options.c_str(), list.c_str());
  return executePolicy(command, options, set + "/policy", list);
}

// Runs one list, if it exists, and removes it afterwards: what it held must not be done in a later
// pass.
int runList(const std::string &set, const std::string &list, uint64_t ino, bool isDelDir, int code,
            const ListRunner &here) {
  struct stat st;
  int rc = 0;
  if (statWorkFile(list, &st) != 0) {
    if (errno == ENOENT) return 0;
    rc = errno;
  } else {
    if (st.st_size != 0) rc = isSmall(list, st.st_size) ? here(list) : runEngine(set, list);
    if (rc == 0 && unlinkWorkFile(list) != 0) rc = errno;
  }
  if (rc != 0) {
    const int err = errno;
    traceLog("restoreDelNewDir: ino %lld, DelDir %d, rc %d, code %d, error %d\n",
             static_cast<long long>(ino), isDelDir, rc, code, err);
    errno = err;
  }
  return rc;
}

}  // namespace

int restoreDelNewDir(uint64_t ino, bool isDelDir, const ListRunner &here) {
  const std::string set = dirSet(ino, isDelDir);
  struct stat st;
  if (statWorkFile(set, &st) != 0 && errno == ENOENT) {
    traceLog("restoreDelNewDir: no files need to handle for ino %lld\n", static_cast<long long>(ino));
    return 0;
  }
  std::vector<int> depths;
  if (!listedDepths(set, &depths)) {
    int err = errno;
    traceLog("restoreDelNewDir: ino %lld, DelDir %d, rc %d, code %d, error %d\n",
             static_cast<long long>(ino), isDelDir, err, 1, err);
    errno = err;
    return err;
  }
  // Deleted: parents before their contents. New: contents before the directory that holds them.
  if (!isDelDir) std::reverse(depths.begin(), depths.end());
  for (int depth : depths) {
    if (int rc = runList(set, dirSetList(ino, isDelDir, depth), ino, isDelDir, 1, here)) return rc;
    if (int rc = runList(set, dirSetMoveList(ino, isDelDir, depth), ino, isDelDir, 2, here)) return rc;
  }
  unlinkWorkFile(set + "/policy");
  return 0;
}
