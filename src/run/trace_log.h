// The trace log ErrorLog: diagnostics of every process of a run, one shared file.
#pragma once

#include <string>

// Appends one line: "[time][host][pid:... phase:... pass:...]: " and the text. Lines wait while more of
// them come within a millisecond; they reach the file whole, by one write(2) in append mode. Never
// fails visibly and keeps errno. Writes nothing while there is no work directory. Callers end their
// formats with a newline.
void traceLog(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Writes the lines that wait. To be called before the process waits, starts another or ends. Keeps
// errno.
void flushTraceLines();

// Forgets the open file (the work directory goes away, or changes in tests).
void closeTraceLog();

// Local time as "YYYY-MM-DD hh:mm:ss".
std::string formatTimeStamp();

// The text that the command hostname prints, without its newline.
const std::string &hostName();

// When Debug is set and no path was too long: 21 dashes, then the whole trace log, on standard output.
void dumpErrorLog();
