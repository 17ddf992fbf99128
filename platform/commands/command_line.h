// What the small commands have in common: options, --help, the device, and their last words.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "filesystem/file_system.h"

namespace kest {

class CommandLine {
 public:
  // `usage` begins with "Usage: <name> ".
  CommandLine(const char *name, const char *usage) : name_(name), usage_(usage) {}

  // Reads options of these getopt `letters` and `words` words, or up to `most_words` if that is more.
  // True to go on; else the command ends with *status: 0 after --help and --version (on standard
  // output), 1 after a mistake (message and usage on standard error).
  bool parse(int argc, char **argv, const std::string &letters, size_t words, int *status,
             size_t most_words = 0);

  bool has(char letter) const { return options_.count(letter) != 0; }
  // Value of an option; "" without it.
  std::string option(char letter) const;
  size_t words() const { return words_.size(); }
  const std::string &word(size_t at) const { return words_[at]; }

  // Message and usage on standard error. 1.
  int usageError(const std::string &problem) const;
  // "<name>: <text>" on standard error. 1.
  int fail(const std::string &text) const;
  // The same with ": <reason of error>" after it, for an errno or its negative.
  int fail(const std::string &text, int error) const;
  // Opens the mounted file system `device`. 0, or 1 after a message on standard error.
  int openDevice(const std::string &device, std::unique_ptr<FileSystem> *fs) const;

  // Flushes standard output: 0, or 1 and a message when what was printed did not get there.
  int finish() const;

 private:
  const char *name_;
  const char *usage_;
  std::map<char, std::string> options_;
  std::vector<std::string> words_;
};

}  // namespace kest
