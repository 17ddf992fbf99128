#include "policy/nested_runs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <vector>

#include "formats/list_record.h"
#include "formats/operation.h"
#include "formats/work_names.h"
#include "policy/command_lines.h"
#include "policy/policy_run.h"
#include "run/settings.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

constexpr int kSmallBatch = 100;           // records
constexpr off_t kSmallList = 1024 * 1024;  // bytes

enum NestedStep : int {
  kRunList = 1,  // also reading the directory of the set
  kRunMoveList = 2,
};

// Finds the depths that have a list or a move list, from the names in the set's directory.
Result listedDepths(const std::string &set, std::vector<int> *depths) {
  Dir dir;
  if (Result r = openWorkList(set, &dir); !r) return r;
  for (const dirent *entry = nullptr;;) {
    if (Result r = nextEntry(dir, &entry); !r) return r;
    if (entry == nullptr) break;
    if (const std::optional<int> depth = parseDirSetList(entry->d_name)) depths->push_back(*depth);
  }
  std::sort(depths->begin(), depths->end());
  depths->erase(std::unique(depths->begin(), depths->end()), depths->end());
  return {};
}

// Returns true if the list is one small batch with little data. Returns false for a damaged list: the
// engine checks a list as a whole and refuses it before it performs anything.
bool isSmall(const std::string &path, off_t size) {
  if (size > kSmallList) return false;
  ListReader list;
  if (!openList(path, &list)) return false;
  uint64_t bytes = 0;
  for (int count = 0;; ++count) {
    ListedRecord record;
    Operation op;
    bool end = false;
    if (!list.next(&record, &end)) return false;
    if (end) return true;
    if (!parseOpString(record.opString, &op)) return false;
    bytes += op.length;
    if (count == kSmallBatch || bytes > static_cast<uint64_t>(settings.frameSize)) return false;
  }
}

// Runs one list through the engine.
Result runEngine(const std::string &set, const std::string &list) {
  EngineRun run;
  if (Result r = nestedRun(set, list, &run); !r) return r;
  traceLog("restoreDelNewDir: phase %d pass %d pcCmd %s, exeOpt %s, opListPath %s\n", settings.phase,
           settings.pass, run.command.c_str(), run.options.c_str(), list.c_str());
  return executePolicy(run);
}

// Runs one list, if it exists. Then removes it, so that a later pass does not perform its records
// again.
Result runList(const std::string &set, const std::string &list, const ListRunner &here) {
  struct stat st;
  if (Result r = statWorkFile(list, &st); !r) return r.err == ENOENT ? Result{} : r;
  if (st.st_size != 0) {
    if (Result r = isSmall(list, st.st_size) ? here(list) : runEngine(set, list); !r) return r;
  }
  return unlinkWorkFile(list);
}

Result runSet(const std::string &set, uint64_t ino, bool isDelDir, const ListRunner &here) {
  std::vector<int> depths;
  if (Result r = listedDepths(set, &depths); !r) return r.at(kRunList);
  // Make parents before their contents, but remove contents before the directory that holds them.
  if (!isDelDir) std::reverse(depths.begin(), depths.end());
  for (const int depth : depths) {
    if (Result r = runList(set, dirSetList(ino, isDelDir, depth), here); !r) return r.at(kRunList);
    if (Result r = runList(set, dirSetMoveList(ino, isDelDir, depth), here); !r)
      return r.at(kRunMoveList);
  }
  return {};
}

}  // namespace

Result restoreDelNewDir(uint64_t ino, bool isDelDir, const ListRunner &here) {
  const long long number = static_cast<long long>(ino);
  const std::string set = dirSet(ino, isDelDir);
  struct stat st;
  if (Result r = statWorkFile(set, &st); !r && r.err == ENOENT) {
    traceLog("restoreDelNewDir: no files need to handle for ino %lld\n", number);
    return {};
  }
  const Result result = runSet(set, ino, isDelDir, here);
  if (!result) {
    traceLog("restoreDelNewDir: ino %lld, DelDir %d, rc %d, code %d, error %d\n", number, isDelDir,
             result.rc, result.code, result.err);
    return result;
  }
  // The policy exists only if a list of the set went through the engine.
  (void)unlinkWorkFile(dirSetPolicyName(set));
  return {};
}
