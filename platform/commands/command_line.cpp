#include "commands/command_line.h"

#include <getopt.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "detect/file_systems.h"
#include "filesystem/error_text.h"

namespace kest {

bool CommandLine::parse(int argc, char **argv, const std::string &letters, size_t words, int *status,
                        size_t most_words) {
  constexpr int kVersion = 256;  // not a letter
  static const struct option kLong[] = {
      {"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, kVersion}, {}};
  // The leading '-' makes getopt return other words in their order, too, even with POSIXLY_CORRECT.
  std::string all = "-:h" + letters;
  opterr = 0;
  int letter;
  while ((letter = getopt_long(argc, argv, all.c_str(), kLong, nullptr)) != -1) {
    if (letter == 1) {
      // For the letter 1 optarg is the word, never null.
      words_.push_back(optarg);  // NOLINT(clang-analyzer-cplusplus.StringChecker)
      continue;
    }
    if (letter == 'h') {
      fputs(usage_, stdout);
      *status = finish();
      return false;
    }
    if (letter == kVersion) {
      printf("%s %s\n", name_, FSETRESTORE_VERSION);
      *status = finish();
      return false;
    }
    if (letter == ':' || letter == '?') {
      std::string option = optopt ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
      *status = usageError(letter == ':' ? option + " needs a value" : "unknown option " + option);
      return false;
    }
    options_[static_cast<char>(letter)] = optarg ? optarg : "";
  }
  words_.insert(words_.end(), argv + optind, argv + argc);
  if (words_.size() >= words && words_.size() <= std::max(words, most_words)) return true;
  *status = usageError(words_.size() < words ? "too few arguments" : "too many arguments");
  return false;
}

std::string CommandLine::option(char letter) const {
  auto found = options_.find(letter);
  return found == options_.end() ? std::string() : found->second;
}

int CommandLine::usageError(const std::string &problem) const {
  fprintf(stderr, "%s: %s\n%s", name_, problem.c_str(), usage_);
  return 1;
}

int CommandLine::fail(const std::string &text) const {
  fprintf(stderr, "%s: %s\n", name_, text.c_str());
  return 1;
}

int CommandLine::fail(const std::string &text, int error) const {
  return fail(text + ": " + strerror(abs(error)));
}

int CommandLine::openDevice(const std::string &device, std::unique_ptr<FileSystem> *fs) const {
  const int rc = openFileSystem(device, fs);
  if (rc < 0 && !errorText().empty()) return fail(errorText());
  if (rc == -ENODEV) return fail(device + " is no mounted file system of a known kind");
  return rc < 0 ? fail(device, rc) : 0;
}

int CommandLine::finish() const {
  if (fflush(stdout) == 0 && !ferror(stdout)) return 0;
  return fail("standard output", errno);
}

}  // namespace kest
