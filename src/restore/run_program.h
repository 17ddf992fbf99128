// The program in every mode.
#pragma once

#include <cstdint>

// Runs the program and returns its exit status. `item_limit` is the number of difference items that one
// pass may hold; 0 takes it from the memory budget.
int runProgram(int argc, char **argv, uint64_t item_limit = 0);
