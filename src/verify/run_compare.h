// fsetcompare from the command line to the exit status.
#pragma once

// 0 equal, 1 different, 2 trouble.
int runCompare(int argc, char **argv);
