// FUZZ_TARGET=list_record build/fuzz/tests/fuzz tests/fuzz/corpus/list_record -max_total_time=120
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/fuzz.h"

static fuzz::Target chosen;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const char *name = getenv("FUZZ_TARGET");
  for (const fuzz::Target &one : fuzz::targets()) {
    if (name && strcmp(name, one.name) == 0) chosen = one;
    if (!name) fprintf(stderr, "%s\n", one.name);
  }
  if (chosen.run) return 0;
  fprintf(stderr, "FUZZ_TARGET must be a target\n");
  exit(1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // A copy that ends with its allocation, and which targets may modify temporarily.
  const std::unique_ptr<char[]> copy(new char[size]);
  if (size > 0) memcpy(copy.get(), data, size);
  chosen.run({copy.get(), size});
  return 0;
}
