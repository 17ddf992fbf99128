#include "run/trace_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

#include "run/settings.h"
#include "run/trace_buffer.h"
#include "run/work_access.h"
#include "run/work_dir.h"

namespace {

int log_fd = -1;
std::string log_dir;  // the work directory that log_fd belongs to

int logDescriptor() {
  if (log_fd >= 0 && log_dir == settings.shareDir) return log_fd;
  closeTraceLog();
  if (settings.shareDir.empty()) return -1;
  const std::string path = workPath(kErrorLog);
  if (path.empty()) return -1;
  log_fd = openWorkFile(path, O_WRONLY | O_CREAT | O_APPEND);
  log_dir = settings.shareDir;
  return log_fd;
}

}  // namespace

void closeTraceLog() {
  const int saved = errno;
  flushTraceLines();
  if (log_fd >= 0) close(log_fd);
  log_fd = -1;
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
  const int fd = logDescriptor();
  if (fd < 0) {
    errno = saved;
    return;
  }
  char prefix[256];
  const int prefix_length = snprintf(
      prefix, sizeof prefix, "[%s][%s][pid:%lld phase:%d pass:%d]: ", formatTimeStamp().c_str(),
      hostName().c_str(), static_cast<long long>(getpid()), settings.phase, settings.pass);
  std::string line(prefix, static_cast<size_t>(prefix_length));
  va_list args, again;
  va_start(args, format);
  va_copy(again, args);
  char text[2048];
  errno = saved;  // for %m
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
  putTraceLine(fd, line);
  errno = saved;
}

void dumpErrorLog() {
  flushTraceLines();
  if (!settings.Debug || settings.path2long || settings.shareDir.empty()) return;
  const int fd = openWorkFile(workPath(kErrorLog), O_RDONLY);
  if (fd < 0) return;
  puts("---------------------");
  char piece[65536];
  ssize_t got;
  while ((got = read(fd, piece, sizeof piece)) > 0 || (got < 0 && errno == EINTR))
    if (got > 0) fwrite(piece, 1, static_cast<size_t>(got), stdout);
  fflush(stdout);
  close(fd);
}
