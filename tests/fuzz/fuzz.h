// Readers of bytes from outside, each with what must hold of whatever it reads.
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
  const char *name = nullptr;  // of its folder below corpus/, too
  void (*run)(std::string_view input) = nullptr;
};
extern const std::vector<Target> kRecordTargets, kTextTargets, kTreeTargets;
std::vector<Target> targets();  // all of them

// The pieces of an input that stands for several texts: divided by NUL.
std::vector<std::string> pieces(std::string_view input);

// A folder of this process's own, removed at its end.
const std::string &scratchFolder();

}  // namespace fuzz
