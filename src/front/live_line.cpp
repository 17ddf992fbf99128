#include "front/live_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

#include "front/text.h"

namespace front {

namespace {

constexpr size_t kUsualWidth = 80;

size_t terminalWidth() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsualWidth;
  return size.ws_col;
}

}  // namespace

LiveLine::LiveLine() : on_(isatty(STDERR_FILENO) == 1) {}

void LiveLine::show(const std::string &text) {
  if (!on_) return;
  std::string cut = text;
  while (columns(cut) >= terminalWidth()) cut.pop_back();
  // Do not leave part of a multi-byte character.
  while (!cut.empty() && !isUtf8(cut)) cut.pop_back();
  fprintf(stderr, "\r\033[K%s", cut.c_str());
  fflush(stderr);
  shown_ = true;
}

void LiveLine::clear() {
  if (!shown_) return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  shown_ = false;
}

}  // namespace front
