// running_restore.h: a restore that goes on while the test looks at it, and its stages.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace faults {

std::string readAll(const std::string &path);  // empty where it cannot be read
// False when the condition has not come true within the time.
bool waitUntil(const std::function<bool()> &condition, double seconds);

struct Process {
  pid_t pid, parent;
  std::string name;
};

// A stage of a run, and a text of its trace log with which it begins.
struct Stage {
  const char *name, *begins;
  bool masterAlone;
};

inline constexpr Stage kStages[] = {{"walks", "traverseCommonDir", true},
                                    {"main", "start, phase 3", false},
                                    {"move back", "start, phase 4", false},
                                    {"create", "start, phase 51", false},
                                    {"directory move", "doFinalDirMove: moving", true},
                                    {"links", "start, phase 8", false},
                                    {"directories", "start, phase 6", false},
                                    {"clean-up", "Clean up.", true}};

// A run in a session of its own. Its workers take two records each, so that there are many.
class Running {
 public:
  Running(const std::string &device, const std::string &fileset, const std::string &snapshot,
          int ignored = 0);
  ~Running();

  pid_t pid() const { return pid_; }
  bool ended();
  int exitStatus() const;
  int signalNumber() const;
  std::string said() const { return readAll(said_); }  // both outputs

  // Its processes that have not begun to end.
  std::vector<Process> living() const;
  // The master, its engine, or a worker of it that is at work; 0: there is none.
  pid_t find(const std::string &role) const;

 private:
  std::string said_;
  pid_t pid_ = 0;
  int status_ = 0;
  bool reaped_ = false;
};

// Paths of the work directories below a fileset's root.
std::vector<std::string> workDirs(const std::string &root);
// True when the stage has begun and the run has not ended.
bool hasBegun(Running &run, const std::string &root, const Stage &stage);
// Waits until the stage has begun. False when the run was faster.
bool reach(Running &run, const std::string &root, const Stage &stage);

}  // namespace faults
