// The fatal-error marker: workers record what must stop the whole run, the master reads it.
#pragma once

#include <cstdint>

// Appends a line. What cannot be written is traced and kept for unsavedFatalError. A code of 0 is
// recorded as EIO: a failed batch is never a success.
void setFatalError(int code);

// What this process could not write into the marker, so that its own exit status must say it; 0 in
// general.
int unsavedFatalError();

// 0 without a marker, the first recorded number, -1 when there is a marker without one.
int getFatalError();
