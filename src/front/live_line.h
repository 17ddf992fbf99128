// A line of a terminal that is overwritten again and again.
#pragma once

#include <string>

namespace front {

// Uses standard error, and shows nothing if that is no terminal.
class LiveLine {
 public:
  LiveLine();
  ~LiveLine() { clear(); }
  LiveLine(const LiveLine &) = delete;
  LiveLine &operator=(const LiveLine &) = delete;

  bool on() const { return on_; }
  // Cuts the text at the edge of the terminal.
  void show(const std::string &text);
  // Removes the line, so that something else can be printed.
  void clear();

 private:
  bool on_;
  bool shown_ = false;
};

}  // namespace front
