#include "driver/final_dir_move.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string>
#include <string_view>

#include "object/move_file.h"
#include "run/settings.h"
#include "run/stop_signal.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

int doFinalDirMove() {
  std::string text;
  if (!readWholeFile(workPath(kDirMoveList), &text)) {
    const int error = errno ? errno : EIO;
    traceLog("doFinalDirMove: open dir move list failed err %d\n", error);
    return error;
  }
  std::string_view rest = text;
  while (!rest.empty()) {
    if (stopSignal() != 0) return EINTR;
    const std::string line(rest.substr(0, rest.find('\n')));
    const bool ended = line.size() < rest.size();
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    uint64_t ino = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), ino);
    if (error != std::errc() || end != line.data() + line.size() || !ended) {
      traceLog("doFinalDirMove: invalid line %s\n", line.c_str());
      return EIO;
    }
    const std::string waiting = tempLocation(ino);
    if (waiting.empty()) return ENAMETOOLONG;
    traceLog("doFinalDirMove: moving %s inoStr %s\n", waiting.c_str(), line.c_str());
    if (const int rc = moveFile(waiting, ino, kPhaseDirs, nullptr, false)) {
      traceLog("doFinalDirMove: move %s failed, ino %lld\n", waiting.c_str(),
               static_cast<long long>(ino));
      return rc;
    }
  }
  return 0;
}
