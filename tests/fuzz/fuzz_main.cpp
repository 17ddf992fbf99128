// Runs every target without a fuzzing engine: over its corpus, over each beginning of these inputs, and
// over each with one byte changed, left out or doubled.
//   fuzz CORPUS [TARGET]
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/fuzz.h"

namespace {

constexpr size_t kLongestInput = 65536;
constexpr size_t kPlaces =
    400;  // in one input; a longer input is damaged at every second byte, third byte and so on

// Gives the target an input that ends at the end of a page, so that a read beyond it crashes in every
// build.
void run(const fuzz::Target &target, std::string_view text) {
  static char *const end = [] {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *area =
        mmap(nullptr, kLongestInput + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED || mprotect(static_cast<char *>(area) + kLongestInput, page, PROT_NONE) != 0)
      abort();
    return static_cast<char *>(area) + kLongestInput;
  }();
  text = text.substr(0, kLongestInput);
  memcpy(end - text.size(), text.data(), text.size());
  target.run({end - text.size(), text.size()});
}

void runDamaged(const fuzz::Target &target, const std::string &text) {
  constexpr std::string_view kBytes("\0\n 9:,\\'\xff", 9);
  const size_t step = text.size() / kPlaces + 1;
  for (size_t at = 0, turn = 0; at < text.size(); at += step, ++turn) {
    const std::string before = text.substr(0, at), after = text.substr(at + 1);
    run(target, before);
    run(target, before + after);
    run(target, before + text[at] + text[at] + after);
    run(target, before + kBytes[turn % kBytes.size()] + after);
    run(target, before + static_cast<char>(text[at] ^ (1 << turn % 8)) + after);
  }
}

}  // namespace

int main(int argc, char **argv) {
  size_t ran = 0;
  for (const fuzz::Target &target : fuzz::targets()) {
    if (argc < 2 || (argc > 2 && strcmp(argv[2], target.name) != 0)) continue;
    size_t inputs = 0;
    std::error_code error;
    for (const auto &entry :
         std::filesystem::directory_iterator(std::filesystem::path(argv[1]) / target.name, error)) {
      std::ifstream in(entry.path(), std::ios::binary);
      const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
      printf("%s\n", entry.path().c_str());
      fflush(stdout);  // a crash then names its input
      run(target, text);
      runDamaged(target, text);
      ++inputs;
    }
    if (inputs == 0) {
      fprintf(stderr, "%s has no corpus in %s\n", target.name, argv[1]);
      return 1;
    }
    ++ran;
  }
  if (ran == 0) fprintf(stderr, "Usage: fuzz CORPUS [TARGET]\n");
  return ran > 0 ? 0 : 2;
}
