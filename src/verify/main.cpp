#include "verify/run_compare.h"

int main(int argc, char **argv) {
  return runCompare(argc, argv);
}
