// The user's request.
#pragma once

#include <string>

#include "front/fileset.h"

namespace front {

struct Request {
  std::string command;  // "list", "diff", "restore", "undo", "progress"
  Place place;
  std::string snapshot;
  bool json = false;
  bool yes = false;
  bool no_backup = false;
  bool stat = false;
  bool full = false;
};

// Exit statuses: those of restore and undo are fsetrestore's, all others fsetcompare's.
enum ExitStatus { kDone = 0, kNotDone = 1, kFailed = 2 };

}  // namespace front
