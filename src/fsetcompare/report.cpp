#include "fsetcompare/report.h"

#include <string.h>

#include <cstdio>

#include "messages/messages.h"

std::string escaped(std::string_view text) {
  std::string out;
  for (const unsigned char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      char code[8];
      snprintf(code, sizeof code, "\\x%02x", c);
      out += code;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

void Report::difference(const char *kind, const std::string &path,
                        std::initializer_list<std::string> details) {
  ++differences_;
  if (quiet_) return;
  std::string line = kind;
  line += '\t' + (path.empty() ? "." : escaped(path));
  for (const std::string &detail : details) line += '\t' + escaped(detail);
  line += '\n';
  fwrite(line.data(), 1, line.size(), stdout);
}

void Report::trouble(const std::string &path, int error) {
  troubled_ = true;
  if (!quiet_)
    userMessage(Message::kCannotCompare, path.empty() ? "." : escaped(path), strerror(error));
}

Result Report::finish() const {
  printf("differences\t%lld\n", static_cast<long long>(differences_));
  return fflush(stdout) == 0 && ferror(stdout) == 0 ? Result{} : failedErrno(0);
}
