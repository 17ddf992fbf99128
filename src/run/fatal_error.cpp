#include "run/fatal_error.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "run/trace_buffer.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {
int unsaved = 0;
}

int setFatalError(int code) {
  flushTraceLines();
  const std::string path = workPath(kFatalError);
  if (code == 0) code = EIO;
  const std::string line = std::to_string(code) + "\n";
  const int fd = openWorkFile(path, O_WRONLY | O_CREAT | O_APPEND);
  if (fd < 0) {
    unsaved = code;
    traceLog("!!Cannot create fatal error file %s\n", path.c_str());
    return -1;
  }
  const bool written = writeAll(fd, line) == 0;
  if (close(fd) == 0 && written) return 0;
  unsaved = code;
  traceLog("!!Cannot write fatal error file %s\n", path.c_str());
  return -1;
}

int unsavedFatalError() {
  return unsaved;
}

int getFatalError() {
  if (unsaved != 0) return unsaved;
  const std::string path = workPath(kFatalError);
  std::string text;
  if (path.empty() || !readWholeFile(path, &text)) {
    // A marker that is there and cannot be read is an error all the same.
    if (!path.empty() && errno != ENOENT) {
      traceLog("!!Get fatal error, err %d\n", 0);
      return -1;
    }
    traceLog("Doesn't find fatal error\n");
    return 0;
  }
  const int number = atoi(text.substr(0, std::min(text.find('\n'), size_t{15})).c_str());
  traceLog("!!Get fatal error, err %d\n", number);
  return number == 0 ? -1 : number;
}
