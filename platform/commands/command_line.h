// Shared by the small commands: options, --help, the device and the final flush.
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

  // Parses options of these getopt `letters` and `words` words, or up to `most_words` if that is more.
  // Returns true if the command can go on. Otherwise it must end with *status: 0 after --help and
  // --version, which print on standard output; 1 after an error, with message and usage on standard
  // error.
  bool parse(int argc, char **argv, const std::string &letters, size_t words, int *status,
             size_t most_words = 0);

  bool has(char letter) const { return options_.count(letter) != 0; }
  // Returns the value of an option, or "".
  std::string option(char letter) const;
  size_t words() const { return words_.size(); }
  const std::string &word(size_t at) const { return words_[at]; }

  // Prints message and usage on standard error and returns 1.
  int usageError(const std::string &problem) const;
  // Prints "<name>: <text>" on standard error and returns 1.
  int fail(const std::string &text) const;
  // The same, followed by ": <reason>" for an errno or its negative.
  int fail(const std::string &text, int error) const;
  // Opens the mounted file system `device`. 0, or 1 after a message on standard error.
  int openDevice(const std::string &device, std::unique_ptr<FileSystem> *fs) const;

  // Flushes standard output. 0, or 1 after a message if the output failed.
  int finish() const;

 private:
  const char *name_;
  const char *usage_;
  std::map<char, std::string> options_;
  std::vector<std::string> words_;
};

}  // namespace kest
