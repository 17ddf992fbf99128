// fsetrestore with the number of difference items of a pass taken from DIFF_ITEM_LIMIT.
#include <cstdlib>

#include "driver/memory_budget.h"
#include "driver/run_program.h"

// Stands in for the program's own: that one comes from a library member of its own, which is then not linked.
uint64_t diffItemLimit(uint64_t) {
  const char *limit = getenv("DIFF_ITEM_LIMIT");
  const uint64_t items = limit ? strtoull(limit, nullptr, 10) : 0;
  return items != 0 ? items : 1;
}

int main(int argc, char **argv) {
  return runProgram(argc, argv);
}
