// The trace log ErrorLog: one file that every process of a run appends diagnostics to.
#pragma once

#include <string>

// Appends one line: "[time][host][pid:... phase:... pass:...]: " and the text. Formats end with a
// newline. Lines that follow each other within ten milliseconds are collected; they reach the file
// whole, by one write(2) in append mode. Reports no failure and keeps errno. Does nothing while there
// is no work directory.
void traceLog(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Writes the lines that wait. Call it before this process waits, starts another process or ends. Keeps
// errno.
void flushTraceLines();

// Closes the log: the work directory is about to be removed, or a test has changed it.
void closeTraceLog();

// Local time as "YYYY-MM-DD hh:mm:ss".
std::string formatTimeStamp();

// Returns the host name, as the command hostname prints it.
const std::string &hostName();

// If Debug is set and no path was too long, prints 21 dashes and then the whole trace log on standard
// output: the file of the master's node, then those of the other nodes.
void dumpErrorLog();
