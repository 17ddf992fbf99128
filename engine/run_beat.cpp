#include "engine/run_beat.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "base/file_io.h"
#include "engine/worker_process.h"
#include "formats/work_names.h"

namespace {

constexpr std::chrono::milliseconds kPause(200);
constexpr size_t kBytes = 4096;  // of the file: one write, which readers see as a whole
constexpr char kEnd = '.';       // ends the text that counts

int64_t steadyTime() {
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

}  // namespace

BeatFile::~BeatFile() {
  if (directory_ == nullptr) return;
  // A part that finds no file ends as well.
  (void)beat(RunState::kEndNow, {});
  directory_->remove(path_);
}

Result BeatFile::create(const RunDirectory &directory) {
  constexpr int kTries = 1000;  // engines of dead runs can have left files
  Result r = errnoResult(EEXIST);
  for (int attempt = 0; attempt < kTries && r.err == EEXIST; ++attempt) {
    path_ = directory.path() + "/" + beatName(getpid(), attempt);
    r = directory.openFile(path_, O_WRONLY | O_CREAT | O_EXCL, &fd_);
  }
  if (!r) return r;
  directory_ = &directory;
  return beat(RunState::kRun, {});
}

Result BeatFile::beat(RunState state, const std::set<size_t> &lost) {
  std::string text = std::to_string(++count_) + " " + static_cast<char>(state);
  for (const size_t node : lost) text += " " + std::to_string(node);
  text += std::string(" ") + kEnd;
  text.resize(kBytes, ' ');
  const ssize_t written = pwrite(fd_.get(), text.data(), text.size(), 0);
  return errnoResult(written == static_cast<ssize_t>(text.size()) ? 0 : written < 0 ? errno : EIO);
}

BeatWatch::BeatWatch(const RunDirectory &directory, std::string path, size_t node)
    : directory_(directory),
      path_(std::move(path)),
      node_(node),
      event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      last_change_(steadyTime()) {
  // A read can block for as long as the file system is out of reach, so another thread looks at the
  // clock. Nobody waits for the reader.
  std::thread([this] { read(); }).detach();
  guard_ = std::thread([this] { guard(); });
}

BeatWatch::~BeatWatch() {
  over_ = true;
  guard_.join();
}

RunState BeatWatch::state() {
  uint64_t count = 0;
  if (::read(event_.get(), &count, sizeof count) < 0) return state_;
  return state_;
}

void BeatWatch::set(RunState state) {
  if (state == state_ || state_ == RunState::kEndNow) return;
  state_ = state;
  const uint64_t one = 1;
  if (write(event_.get(), &one, sizeof one) < 0) return;
}

void BeatWatch::read() {
  for (;;) {
    readOnce();
    std::this_thread::sleep_for(kPause);
  }
}

void BeatWatch::readOnce() {
  UniqueFd fd;
  std::string text;
  // The file is opened anew, because that makes the file system look for changes of other nodes.
  const Result opened = directory_.openFile(path_, O_RDONLY, &fd);
  if (opened.err == ENOENT) set(RunState::kEndNow);
  if (!opened || !readToEnd(fd.get(), &text, kBytes)) return;
  std::istringstream words(text);
  std::string count, state, word;
  words >> count >> state;
  bool lost = false, whole = false;
  while (words >> word) {
    lost = lost || word == std::to_string(node_);
    whole = whole || word == std::string(1, kEnd);
  }
  if (!whole || count == last_count_) return;
  last_count_ = count;
  last_change_ = steadyTime();
  if (lost) set(RunState::kEndNow);
  if (state == std::string(1, static_cast<char>(RunState::kStartNothing))) set(RunState::kStartNothing);
  if (state == std::string(1, static_cast<char>(RunState::kEndNow))) set(RunState::kEndNow);
}

void BeatWatch::guard() {
  while (!over_) {
    std::this_thread::sleep_for(kPause / 4);
    if (steadyTime() - last_change_ < kLease / std::chrono::nanoseconds(1)) continue;
    fprintf(stderr, "ktapplypolicy: this node has lost the run, its workers are killed\n");
    // Their own descendants die with them. Children that ended stay in the list if the main thread
    // cannot reap them, because it waits for the file system.
    std::vector<pid_t> children = childProcesses();
    for (int round = 0; round < 40 && !children.empty(); ++round) {
      for (const pid_t child : children) {
        kill(-child, SIGKILL);
        kill(child, SIGKILL);
      }
      std::this_thread::sleep_for(kPause / 4);
      children = childProcesses();
    }
    _exit(1);
  }
}
