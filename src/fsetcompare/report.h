// The lines that report what differs.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "base/result.h"

// A difference is one line: a kind word, the path below the root of the fileset ("." the root itself),
// and the details of the kind, separated by tabs.
class Report {
 public:
  // quiet: only counts.
  explicit Report(bool quiet = false) : quiet_(quiet) {}

  // Path and details are escaped here. Of two values the snapshot's comes first.
  void difference(const char *kind, const std::string &path,
                  std::initializer_list<std::string> details = {});
  // An object that could not be compared: a message with errno `error`.
  void trouble(const std::string &path, int error);
  // The line with the count. Fails where standard output did not take all that was printed.
  Result finish() const;

  int64_t differences() const { return differences_; }
  bool troubled() const { return troubled_; }

 private:
  bool quiet_;
  int64_t differences_ = 0;
  bool troubled_ = false;
};

// Backslash, newline and tab as \\, \n and \t, other control bytes as \xNN, every other byte as it is.
std::string escaped(std::string_view text);
