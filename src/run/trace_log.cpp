#include "run/trace_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

#include "base/file_io.h"
#include "run/node.h"
#include "run/settings.h"
#include "run/work_dir.h"

namespace {

UniqueFd log_fd;
std::string log_dir;  // the work directory whose log is log_fd

constexpr size_t kMostWaiting = 64 * 1024;  // bytes
constexpr int64_t kPause = 10000000;        // nanoseconds

std::string waiting;  // lines that are not written yet
int64_t last_write = 0;

int64_t nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

bool openLog() {
  if (log_fd && log_dir == settings.shareDir) return true;
  closeTraceLog();
  if (settings.shareDir.empty()) return false;
  const std::string path = workPath(nodeFileName(kErrorLog, nodeNumber()));
  if (path.empty() || !openWorkFile(path, O_WRONLY | O_CREAT | O_APPEND, &log_fd)) return false;
  log_dir = settings.shareDir;
  return true;
}

// Returns the prefix of the lines. It is formatted again only when it changes.
const std::string &linePrefix() {
  static const long long pid = getpid();  // the children of vfork trace nothing
  static std::string prefix;
  static time_t second = 0;
  static int32_t phase = 0, pass = 0;
  const time_t now = time(nullptr);
  if (prefix.empty() || now != second || phase != settings.phase || pass != settings.pass) {
    second = now, phase = settings.phase, pass = settings.pass;
    char text[256];
    snprintf(text, sizeof text, "[%s][%s][pid:%lld phase:%d pass:%d]: ", formatTimeStamp().c_str(),
             hostName().c_str(), pid, phase, pass);
    prefix = text;
  }
  return prefix;
}

// Writes the line, or keeps it if the last write was less than ten milliseconds ago and fewer than 64
// KiB are waiting.
void putLine(std::string_view line) {
  if (waiting.size() + line.size() > kMostWaiting) flushTraceLines();
  waiting.append(line);
  if (nanoseconds() - last_write >= kPause) flushTraceLines();
}

void printFile(const UniqueFd &fd) {
  char piece[65536];
  ssize_t got;
  while ((got = read(fd.get(), piece, sizeof piece)) > 0 || (got < 0 && errno == EINTR))
    if (got > 0) fwrite(piece, 1, static_cast<size_t>(got), stdout);
  fflush(stdout);
}

}  // namespace

void flushTraceLines() {
  if (waiting.empty()) return;
  const int saved = errno;
  (void)writeAll(log_fd.get(), waiting);  // a lost line must never change a result
  waiting.clear();
  last_write = nanoseconds();
  errno = saved;
}

void closeTraceLog() {
  const int saved = errno;
  flushTraceLines();
  log_fd.reset();
  log_dir.clear();
  errno = saved;
}

std::string formatTimeStamp() {
  static time_t last = 0;
  static std::string stamp;
  const time_t now = time(nullptr);
  if (now == last) return stamp;
  tm local{};
  localtime_r(&now, &local);
  char text[80];
  snprintf(text, sizeof text, "%.4d-%.2d-%.2d %.2d:%.2d:%.2d", local.tm_year + 1900, local.tm_mon + 1,
           local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  last = now;
  return stamp = text;
}

const std::string &hostName() {
  static const std::string name = [] {
    char text[256] = "";
    if (gethostname(text, sizeof text - 1) != 0) text[0] = '\0';
    return std::string(text).substr(0, 62);
  }();
  return name;
}

void traceLog(const char *format, ...) {
  const int saved = errno;
  if (!openLog()) {
    errno = saved;
    return;
  }
  std::string line = linePrefix();
  va_list args, again;
  va_start(args, format);
  va_copy(again, args);
  char text[2048];
  errno = saved;  // a format may contain %m
  const int length = vsnprintf(text, sizeof text, format, args);
  if (length >= 0 && static_cast<size_t>(length) < sizeof text) {
    line.append(text, static_cast<size_t>(length));
  } else if (length >= 0) {
    std::vector<char> longer(static_cast<size_t>(length) + 1);
    vsnprintf(longer.data(), longer.size(), format, again);
    line.append(longer.data(), static_cast<size_t>(length));
  }
  va_end(again);
  va_end(args);
  putLine(line);
  errno = saved;
}

void dumpErrorLog() {
  flushTraceLines();
  if (!settings.Debug || settings.path2long || settings.shareDir.empty()) return;
  UniqueFd fd;
  if (!openWorkFile(workPath(kErrorLog), O_RDONLY, &fd)) return;
  puts("---------------------");
  printFile(fd);
  Dir dir;
  if (!openWorkList(settings.shareDir, &dir)) return;
  for (const dirent *entry = nullptr; nextEntry(dir, &entry) && entry != nullptr;)
    if (isNodeFile(entry->d_name, kErrorLog) && openWorkFile(workPath(entry->d_name), O_RDONLY, &fd))
      printFile(fd);
}
