// Runs every target over its corpus and over mutations of it, without a fuzzing engine:
//   fuzz CORPUS [RUNS [SEED [TARGET]]]
// The input of a run that crashes is written to fuzz.crash.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "fuzz/fuzz.h"

namespace {

constexpr size_t kLongestInput = 65536;

// Memory in which the input ends at the end of a page, so that a read beyond it crashes in every build.
class GuardedInput {
 public:
  GuardedInput() {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void *area =
        mmap(nullptr, kLongestInput + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED) abort();
    end_ = static_cast<char *>(area) + kLongestInput;
    if (mprotect(end_, page, PROT_NONE) != 0) abort();
  }
  std::string_view set(std::string_view text) {
    text = text.substr(0, kLongestInput);
    current_ = std::string_view(end_ - text.size(), text.size());
    memcpy(end_ - text.size(), text.data(), text.size());
    return current_;
  }
  std::string_view current() const { return current_; }

 private:
  char *end_;
  std::string_view current_;
};

GuardedInput *guarded;

void saveInput(int signal) {
  const int fd = open("fuzz.crash", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const std::string_view input = guarded->current();
  if (fd >= 0 && write(fd, input.data(), input.size()) >= 0) close(fd);
  _exit(128 + signal);
}

class Mutator {
 public:
  Mutator(const std::vector<std::string> &corpus, uint64_t seed) : corpus_(corpus), random_(seed) {}

  std::string next() {
    std::string text = corpus_[below(corpus_.size())];
    for (size_t steps = 1 + below(6); steps > 0; --steps) step(&text);
    return text;
  }

 private:
  size_t below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random_); }

  void step(std::string *text) {
    static const char *const kPieces[] = {
        "0",   "-1", "18446744073709551615", "9223372036854775807", ":", "!", "\n", " ", "\\", "'", "%",
        "-- ", "--", "\xff\xff\xff\xff"};
    const size_t at = below(text->size() + 1),
                 length = below(std::min<size_t>(text->size() - at, 32) + 1);
    const std::string &other = corpus_[below(corpus_.size())];
    switch (below(7)) {
      case 0:
        return void(text->erase(at, length));
      case 1:
        return void(text->insert(at, text->substr(at, length)));
      case 2:
        return void(text->insert(at, kPieces[below(std::size(kPieces))]));
      case 3:
        return text->resize(at);
      case 4:
        return void(text->replace(at, length, other, below(other.size() + 1), 64));
      case 5:
        return void(text->insert(at, 1, static_cast<char>(below(256))));
      default:
        if (at < text->size())
          (*text)[at] = static_cast<char>(below(2) ? below(256) : (*text)[at] ^ (1 << below(8)));
    }
  }

  const std::vector<std::string> &corpus_;
  std::mt19937_64 random_;
};

std::vector<std::string> readCorpus(const std::filesystem::path &folder) {
  std::vector<std::string> corpus;
  std::error_code error;
  for (const auto &entry : std::filesystem::directory_iterator(folder, error)) {
    std::ifstream in(entry.path(), std::ios::binary);
    corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  std::sort(corpus.begin(), corpus.end());  // so that a seed always gives the same inputs
  return corpus;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "Usage: fuzz CORPUS [RUNS [SEED [TARGET]]]\n");
    return 2;
  }
  const uint64_t runs = argc > 2 ? strtoull(argv[2], nullptr, 10) : 1000,
                 seed = argc > 3 ? strtoull(argv[3], nullptr, 10) : 1;
  GuardedInput input;
  guarded = &input;
  for (const int crash : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE}) signal(crash, saveInput);
  size_t ran = 0;
  for (const fuzz::Target &target : fuzz::targets()) {
    if (argc > 4 && strcmp(argv[4], target.name) != 0) continue;
    ++ran;
    const std::vector<std::string> corpus = readCorpus(std::filesystem::path(argv[1]) / target.name);
    if (corpus.empty()) {
      fprintf(stderr, "%s has no corpus in %s\n", target.name, argv[1]);
      return 1;
    }
    printf("%s: %zu inputs, %llu mutations\n", target.name, corpus.size(),
           static_cast<unsigned long long>(runs));
    fflush(stdout);
    for (const std::string &text : corpus) target.run(input.set(text));
    Mutator mutator(corpus, seed);
    for (uint64_t run = 0; run < runs; ++run) target.run(input.set(mutator.next()));
  }
  return ran > 0 ? 0 : 2;
}
