// The trace log ErrorLog: diagnostics of every process of a run, one shared file.
#pragma once

#include <string>

// Appends one line: "[time][host][pid:... phase:... pass:...]: " and the text, in one write(2) to a
// file opened once a process (O_APPEND). Never fails visibly and keeps errno. Writes nothing while
// there is no work directory. Callers end their formats with a newline.
void traceLog(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Forgets the open file (the work directory goes away, or changes in tests).
void closeTraceLog();

// Local time as "YYYY-MM-DD hh:mm:ss".
std::string formatTimeStamp();

// The text that the command hostname prints, without its newline.
const std::string &hostName();

// When Debug is set and no path was too long: 21 dashes, then the whole trace log, on standard output.
void dumpErrorLog();
