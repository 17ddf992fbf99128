// fsetrestore, but DIFF_ITEM_LIMIT sets the number of difference items in a pass.
#include <cstdlib>

#include "restore/run_program.h"

int main(int argc, char **argv) {
  const char *limit = getenv("DIFF_ITEM_LIMIT");
  const uint64_t items = limit ? strtoull(limit, nullptr, 10) : 0;
  return runProgram(argc, argv, items != 0 ? items : 1);
}
