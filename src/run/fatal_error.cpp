#include "run/fatal_error.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/file_io.h"
#include "formats/error_marker.h"
#include "run/trace_log.h"
#include "run/work_dir.h"
#include "run/work_file.h"

namespace {

// A code that could not be written to the marker, for example on a full file system. 0: none.
int unsaved = 0;

Result writeMarker(const std::string &path, int code) {
  UniqueFd fd;
  if (Result r = openWorkFile(path, O_WRONLY | O_CREAT | O_APPEND, &fd); !r) {
    traceLog("!!Cannot create fatal error file %s\n", path.c_str());
    return r;
  }
  Result written = writeAll(fd.get(), formatErrorLine(code));
  if (close(fd.release()) != 0 && written) written = failedErrno(0);
  if (!written) traceLog("!!Cannot write fatal error file %s\n", path.c_str());
  return written;
}

}  // namespace

void setFatalError(int code) {
  flushTraceLines();
  if (!writeMarker(workPath(kFatalError), code)) unsaved = code;
}

Result recordedError() {
  if (unsaved != 0) return errnoResult(unsaved);
  const std::string path = workPath(kFatalError);
  std::string text;
  const Result read = path.empty() ? Result{} : readWholeFile(path, &text);
  if (path.empty() || read.err == ENOENT) {
    traceLog("Doesn't find fatal error\n");
    return {};
  }
  // An unreadable marker still means that a worker failed, so it never counts as "no error".
  if (!read) {
    traceLog("!!Get fatal error, err %d\n", 0);
    return failed(0, EIO);
  }
  int number = 0;
  const bool parsed = parseErrorMarker(text, &number);
  traceLog("!!Get fatal error, err %d\n", number);
  return parsed ? errnoResult(number) : failed(0, EIO);
}
