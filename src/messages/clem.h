// Command-line error messages.
#pragma once

constexpr int kClemTooFewArguments = 8;

// Prints the command-line error with selector `msgSel` (0 to 34) on standard error, formatted with the
// arguments. `option` names the option that the message is about; it may be null. A selector without a
// message is a programming error and aborts the process.
void printCLEM(const char *option, int msgSel, ...);
