// FUZZ_TARGET=list_record build/fuzz/tests/fuzz tests/fuzz/corpus/list_record -max_total_time=120
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/fuzz.h"

static const fuzz::Target *chosen;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const char *name = getenv("FUZZ_TARGET");
  chosen = name ? fuzz::findTarget(name) : nullptr;
  if (chosen) return 0;
  fprintf(stderr, "FUZZ_TARGET must be one of:\n");
  for (const fuzz::Target &one : fuzz::targets()) fprintf(stderr, "  %s\n", one.name);
  exit(1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // A copy that ends with its memory, which targets may write to and put back.
  const std::unique_ptr<char[]> copy(new char[size]);
  if (size > 0) memcpy(copy.get(), data, size);
  chosen->run({copy.get(), size});
  return 0;
}
