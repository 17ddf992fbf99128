// The exception with which the routines of this program fail. They throw because the libraries that
// they use throw.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace front {

// Ends the command. The text is in the user's language, without a newline, and names in it are already
// safe for a terminal. main catches it.
class Trouble : public std::runtime_error {
 public:
  explicit Trouble(const std::string &text, std::vector<std::string> candidates = {})
      : std::runtime_error(text), candidates_(std::move(candidates)) {}
  // What the user may have meant, as raw bytes; empty if there is no choice.
  const std::vector<std::string> &candidates() const { return candidates_; }

 private:
  std::vector<std::string> candidates_;
};

}  // namespace front
