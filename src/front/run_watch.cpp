#include "front/run_watch.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <vector>

#include "base/file_io.h"
#include "formats/list_record.h"
#include "formats/phase.h"
#include "formats/policy_text.h"
#include "formats/work_names.h"
#include "front/text.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr std::chrono::seconds kRateWindow{10};

// The lists in the order in which a run performs them. ARCHITECTURE.md describes the phases.
enum Rank { kUnknown = -1, kMain, kCloneDelete, kMoveBack, kPending, kCreate, kClones, kLinks, kDirs };

int rankOfPhase(int phase) {
  switch (phase) {
    case kPhaseMain:
      return kMain;
    case kPhaseCloneDelete:
      return kCloneDelete;
    case kPhaseMoveBack:
      return kMoveBack;
    case kPhasePending:
      return kPending;
    case kPhaseCreate:
      return kCreate;
    case kPhaseClones:
      return kClones;
    case kPhaseLinks:
      return kLinks;
    case kPhaseDirs:
      return kDirs;
    default:
      return kUnknown;
  }
}

int rankOfList(const std::string &name) {
  if (name == kOpList || name == kOpListMove) return kMain;
  if (parseCloneDeleteList(name)) return kCloneDelete;
  if (name == kRegMoveList) return kMoveBack;
  if (name == kRegPendingMvList) return kPending;
  if (name == kOpListCopy) return kCreate;
  if (parseCloneList(name)) return kClones;
  if (name == kLinkIno) return kLinks;
  if (name == kDirLast) return kDirs;  // not dir.new, whose records move to dir.last
  return kUnknown;
}

struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};

// Returns the names in a directory below `dir`; none if it cannot be read.
std::vector<std::string> namesIn(int dir, const std::string &path) {
  std::vector<std::string> names;
  const int fd = openat(dir, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return names;
  const std::unique_ptr<DIR, DirCloser> stream(fdopendir(fd));
  if (!stream) {
    close(fd);
    return names;
  }
  while (const dirent *entry = readdir(stream.get()))
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  return names;
}

UniqueFd openFile(int dir, const std::string &name, struct stat *status) {
  UniqueFd fd(openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (fd && (fstat(fd.get(), status) != 0 || !S_ISREG(status->st_mode))) fd.reset();
  return fd;
}

bool isRestore(pid_t pid) {
  const UniqueFd fd(open(("/proc/" + std::to_string(pid) + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
  std::string name;
  return fd && readToEnd(fd.get(), &name) && name.starts_with("fsetrestore");
}

// Returns the value that follows an option in a worker's command line.
int optionValue(const std::vector<std::string> &words, const char *option) {
  int value = 0;
  for (size_t at = 0; at + 1 < words.size(); ++at)
    if (words[at] == option) value = atoi(words[at + 1].c_str());
  return value;
}

}  // namespace

// Finds the work directory of root that was changed last: a run keeps changing its own, but not those
// that interrupted runs have left.
bool RunWatch::findDirectory() {
  std::pair<time_t, long> latest;
  for (const std::string &name : namesIn(root_, ".")) {
    const std::optional<int> number = parseWorkDirName(name);
    if (!number) continue;
    UniqueFd dir(openat(root_, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!dir || fstat(dir.get(), &status) != 0) continue;
    const std::pair<time_t, long> changed{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    if (status.st_uid != 0 || (status.st_mode & 0022) != 0 || (dir_ && changed < latest)) continue;
    latest = changed;
    dir_ = std::move(dir);
    name_ = name;
    number_ = *number;
  }
  return static_cast<bool>(dir_);
}

// Every engine run of the master writes a policy file here, whose worker options name phase and pass.
void RunWatch::readPolicy(Progress *progress) {
  struct stat status;
  const UniqueFd fd = openFile(dir_.get(), kPolicy, &status);
  std::string text, problem;
  ScriptRule rule;
  if (!fd || !readToEnd(fd.get(), &text) || !parsePolicy(text, &rule, &problem)) return;
  progress->phase = optionValue(rule.options, "-p");
  progress->pass = optionValue(rule.options, "-s");
  if (const int caller = optionValue(rule.options, "-c"); caller > 0) progress->pid = caller;
}

void RunWatch::countList(int dir, const std::string &name, const std::string &key, int rank,
                         bool nested) {
  struct stat status;
  UniqueFd fd = openFile(dir, name, &status);
  if (!fd) return;
  List &list = lists_[key];
  list.seen = true;
  list.rank = rank;
  list.nested = nested;
  if (list.inode != status.st_ino || static_cast<uint64_t>(status.st_size) < list.position) {
    finished_ += list.records;  // the list was emptied for the next pass, or replaced
    list.inode = status.st_ino;
    list.position = list.records = 0;
  }
  if (static_cast<uint64_t>(status.st_size) == list.position) return;
  ListReader reader;
  if (!reader.open(std::move(fd))) return;
  reader.seek(list.position);
  // A record that is still incomplete is counted at the next look.
  for (ListedRecord record;;) {
    bool end = false;
    if (!reader.next(&record, &end) || end) break;
    ++list.records;
    list.position = reader.position();
  }
}

void RunWatch::countLists(int dir, const std::string &folder, int rank) {
  for (const std::string &name : namesIn(dir, folder)) {
    const std::string path = folder + "/" + name;
    if (rank != kUnknown) {
      if (parseDirSetList(name)) countList(dir, path, path, rank, true);
    } else if (const int own = rankOfList(name); own != kUnknown) {
      countList(dir, path, path, own, false);
    } else if (isDirSetName(name)) {
      countLists(dir, path, kMain);
    }
  }
}

void RunWatch::countCheckpoints(pid_t caller, int rank) {
  if (rank != rank_) {
    rank_ = rank;
    gone_lines_ = 0;
    checkpoints_.clear();
  }
  for (auto &[name, one] : checkpoints_) one.seen = false;
  const std::string prefix = checkpointPrefix(caller);
  for (const std::string &name : namesIn(dir_.get(), kCheckpointDir)) {
    Checkpoint &one = checkpoints_[name];
    one.seen = true;
    one.own = name.starts_with(prefix);
    struct stat status;
    const UniqueFd fd = openFile(dir_.get(), std::string(kCheckpointDir) + "/" + name, &status);
    if (!fd || static_cast<uint64_t>(status.st_size) <= one.position) continue;
    if (lseek(fd.get(), static_cast<off_t>(one.position), SEEK_SET) < 0) continue;
    std::string text;
    if (!readToEnd(fd.get(), &text)) continue;
    one.lines += static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
    one.position += text.size();
  }
  // Removed checkpoints of the master's list count as done until the phase ends.
  for (auto at = checkpoints_.begin(); at != checkpoints_.end();) {
    if (!at->second.seen && at->second.own) gone_lines_ += at->second.lines;
    at = at->second.seen ? std::next(at) : checkpoints_.erase(at);
  }
}

void RunWatch::measureRate(Progress *progress) {
  const auto now = Clock::now();
  samples_.emplace_back(now, progress->done);
  while (samples_.size() > 2 && now - samples_.front().first > kRateWindow) samples_.pop_front();
  const double seconds = std::chrono::duration<double>(now - samples_.front().first).count();
  const auto more = static_cast<double>(progress->done - samples_.front().second);
  if (seconds > 0) progress->per_second = more / seconds;
  if (progress->phase != 0 && progress->per_second > 0)
    progress->seconds_left = static_cast<int64_t>(
        static_cast<double>(progress->total - progress->done) / progress->per_second + 0.5);
}

std::optional<Progress> RunWatch::look() {
  if (!dir_ && !findDirectory()) return std::nullopt;
  Progress progress;
  progress.work_directory = name_;
  progress.pid = number_;
  readPolicy(&progress);
  struct stat status;
  const bool ours = pid_ == 0 || progress.pid == pid_ || number_ == pid_;
  if (!ours || !isRestore(progress.pid) || fstat(dir_.get(), &status) != 0 || status.st_nlink == 0) {
    dir_.reset();  // another run may begin
    return std::nullopt;
  }
  const int rank = rankOfPhase(progress.phase);
  for (auto &[key, list] : lists_) list.seen = false;
  countLists(dir_.get(), ".", kUnknown);
  countCheckpoints(progress.pid, rank);

  uint64_t done = 0, here = 0, nested = 0, lines = gone_lines_, nested_lines = 0;
  for (auto at = lists_.begin(); at != lists_.end();) {
    const List &list = at->second;
    if (!list.seen) {
      finished_ += list.records;
      at = lists_.erase(at);
      continue;
    }
    progress.total += list.records;
    if (list.rank < rank) done += list.records;
    if (list.rank == rank) (list.nested ? nested : here) += list.records;
    ++at;
  }
  for (const auto &[name, one] : checkpoints_) (one.own ? lines : nested_lines) += one.lines;
  done += finished_ + std::min(here, lines) + std::min(nested, nested_lines);
  progress.total += finished_;
  // The estimate can fluctuate while lists and checkpoints change; never show it going backwards.
  most_done_ = std::max(most_done_, std::min(done, progress.total));
  progress.done = std::min(most_done_, progress.total);
  measureRate(&progress);
  return progress;
}

std::string phaseText(int phase) {
  switch (phase) {
    case kPhaseMain:
      return frontText(FrontText::kPhaseMain);
    case kPhaseCloneDelete:
      return frontText(FrontText::kPhaseCloneDelete);
    case kPhaseMoveBack:
    case kPhasePending:
      return frontText(FrontText::kPhaseMoveBack);
    case kPhaseCreate:
      return frontText(FrontText::kPhaseCreate);
    case kPhaseClones:
      return frontText(FrontText::kPhaseClones);
    case kPhaseLinks:
      return frontText(FrontText::kPhaseLinks);
    case kPhaseDirs:
      return frontText(FrontText::kPhaseDirs);
    default:
      return frontText(FrontText::kPhaseRead);
  }
}

std::string progressText(const Progress &progress) {
  std::string text = phaseText(progress.phase) + "  ";
  const int64_t done = static_cast<int64_t>(progress.done),
                total = static_cast<int64_t>(progress.total);
  if (progress.phase == 0) return text + frontText(FrontText::kFoundSoFar, total);
  const int percent = total == 0 ? 100 : static_cast<int>(done * 100 / total);
  text += frontText(FrontText::kDoneOf, done, total, percent);
  if (progress.per_second >= 1)
    text += "  " + frontText(FrontText::kPerSecond, static_cast<int64_t>(progress.per_second));
  if (progress.seconds_left)
    text += "  " + frontText(FrontText::kLeft, ageText(*progress.seconds_left));
  return text;
}

}  // namespace front
