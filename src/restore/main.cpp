#include "restore/run_program.h"

int main(int argc, char **argv) {
  return runProgram(argc, argv);
}
