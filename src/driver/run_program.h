// The program, in every mode.
#pragma once

// The exit status.
int runProgram(int argc, char **argv);
