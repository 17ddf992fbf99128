// Parsers of bytes from outside, each with properties that must hold for everything it accepts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Ends the program with a message.
[[noreturn]] void broken(const char *property, const char *file, int line);
#define FUZZ_CHECK(property) \
  ((property) ? static_cast<void>(0) : fuzz::broken(#property, __FILE__, __LINE__))

struct Target {
  const char *name = nullptr;  // also the name of its folder in corpus/
  void (*run)(std::string_view input) = nullptr;
};
extern const std::vector<Target> kRecordTargets, kTextTargets, kTreeTargets;
std::vector<Target> targets();  // all of them

// Splits an input that stands for several texts at NUL bytes.
std::vector<std::string> pieces(std::string_view input);

// A folder for this process, which is removed at its end.
const std::string &scratchFolder();

}  // namespace fuzz
