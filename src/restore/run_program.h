// The program, in every mode.
#pragma once

#include <cstdint>

// The exit status. `item_limit`: difference items that one pass may hold; 0: as many as the memory
// budget allows.
int runProgram(int argc, char **argv, uint64_t item_limit = 0);
