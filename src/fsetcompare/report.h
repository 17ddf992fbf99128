// Prints the lines that report differences.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "base/result.h"

// A difference is one line of fields separated by tabs: a kind word, the path below the fileset's root
// ("." for the root itself), and the details of that kind.
class Report {
 public:
  // With `quiet`, only counts.
  explicit Report(bool quiet = false) : quiet_(quiet) {}

  // Escapes path and details. Of two values, the snapshot's comes first.
  void difference(const char *kind, const std::string &path,
                  std::initializer_list<std::string> details = {});
  // Reports an object that could not be compared, for the reason in the errno `error`.
  void trouble(const std::string &path, int error);
  // Prints the line with the count. Fails if standard output did not accept everything that was
  // printed.
  Result finish() const;

  int64_t differences() const { return differences_; }
  bool troubled() const { return troubled_; }

 private:
  bool quiet_;
  int64_t differences_ = 0;
  bool troubled_ = false;
};

// Writes backslash, newline and tab as \\, \n and \t and other control bytes as \xNN; keeps all other
// bytes.
std::string escaped(std::string_view text);
