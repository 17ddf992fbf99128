// How this program's routines fail: the libraries that it stands on throw, so it does as well.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace front {

// Ends the command. The text is for the user, in his language and without a newline; names in it are
// already in the form that a terminal may show. main catches it.
class Trouble : public std::runtime_error {
 public:
  explicit Trouble(const std::string &text, std::vector<std::string> candidates = {})
      : std::runtime_error(text), candidates_(std::move(candidates)) {}
  // What the user may have meant, raw bytes; empty where there is nothing to choose.
  const std::vector<std::string> &candidates() const { return candidates_; }

 private:
  std::vector<std::string> candidates_;
};

}  // namespace front
