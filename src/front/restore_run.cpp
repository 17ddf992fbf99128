#include "front/restore_run.h"

#include <signal.h>
#include <string.h>

#include <cstdio>
#include <string>

#include "formats/program_names.h"
#include "front/live_line.h"
#include "front/program.h"
#include "front/run_watch.h"

namespace front {

namespace {

constexpr int kLookEvery = 250;  // milliseconds

volatile sig_atomic_t restore = 0;  // process id of the restore; 0: not known yet
volatile sig_atomic_t missed = 0;   // a signal that arrived before the process id was known

void passOn(int number) {
  if (restore > 0)
    kill(static_cast<pid_t>(restore), number);
  else
    missed = number;
}

// Passes signals on, because this process must outlive the restore, which ends by itself.
void catchSignals() {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action;
    if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = passOn;
    sigaction(number, &action, nullptr);
  }
}

// Prints the whole lines of `text` and keeps the remainder.
void printLines(std::string *text, bool ended, LiveLine *live) {
  if (ended && !text->empty() && !text->ends_with('\n')) *text += '\n';
  size_t start = 0;
  for (size_t end; (end = text->find('\n', start)) != std::string::npos; start = end + 1) {
    // These lines report progress, which the live line shows.
    if (live->on() && (*text)[start] == '[') continue;
    live->clear();
    fwrite(text->data() + start, 1, end + 1 - start, stderr);
  }
  text->erase(0, start);
}

}  // namespace

int runRestore(const Fileset &fileset, const Snapshot &snapshot) {
  catchSignals();
  Program program({std::string(kProgramDir) + "fsetrestore", fileset.device, "-j", fileset.name(), "-o",
                   snapshot.word, "-q"},
                  Program::Capture::kBoth);
  restore = program.pid();
  if (missed != 0) passOn(missed);
  RunWatch watch(fileset.root.get(), program.pid());
  LiveLine live;
  std::string text;
  for (bool ended = false; !ended;) {
    text += program.read(live.on() ? kLookEvery : -1, &ended);
    printLines(&text, ended, &live);
    if (!live.on() || ended) continue;
    if (const auto progress = watch.look()) live.show(progressText(*progress));
  }
  live.clear();
  const int status = program.wait();
  restore = 0;
  return status;
}

}  // namespace front
