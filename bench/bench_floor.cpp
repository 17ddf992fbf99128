// bench_floor list SNAPSHOT TREE LIST   writes to LIST the calls that make TREE equal to SNAPSHOT
// bench_floor run LIST                  makes them
// Measures the least that a restore can cost: two threads make only the calls that change something;
// nothing has to be found out, recorded or started. `list` prints the number of objects that calls
// change; 0: there is nothing to measure.

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "floor_list.h"

int main(int argc, char **argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  try {
    if (words.size() == 4 && words[0] == "list") {
      const bench::FloorList list = bench::planFloor(words[1], words[2]);
      bench::writeFloorList(list, words[3]);
      printf("%zu\n", list.ops.size());
      return 0;
    }
    if (words.size() == 2 && words[0] == "run") {
      bench::runFloor(bench::readFloorList(words[1]));
      return 0;
    }
  } catch (const std::exception &problem) {
    fprintf(stderr, "bench_floor: %s\n", problem.what());
    return 1;
  }
  fprintf(stderr, "bench_floor: usage: see the source\n");
  return 2;
}
