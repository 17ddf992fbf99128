// One line of a terminal that is written over and over.
#pragma once

#include <string>

namespace front {

// On standard error; where that is no terminal nothing is shown.
class LiveLine {
 public:
  LiveLine();
  ~LiveLine() { clear(); }
  LiveLine(const LiveLine &) = delete;
  LiveLine &operator=(const LiveLine &) = delete;

  bool on() const { return on_; }
  // Cut off at the edge of the terminal.
  void show(const std::string &text);
  // Takes the line away, so that something else can be printed.
  void clear();

 private:
  bool on_;
  bool shown_ = false;
};

}  // namespace front
