// Trace lines that wait a moment to be written together.
#pragma once

#include <string_view>

// Writes one line to `fd`, or keeps it where the last write was less than a millisecond ago and fewer
// than 16 KiB wait. A lost line never changes a result.
void putTraceLine(int fd, std::string_view line);

// Writes what waits. To be called before the process waits, starts another or ends. Keeps errno.
void flushTraceLines();
