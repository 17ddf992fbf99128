// The fatal-error marker. Workers record an error that must stop the whole run; the master reads it.
#pragma once

#include <cstdint>

// Appends `code` as a line to the marker. If that fails, traces it and keeps the code for
// getFatalError. Records 0 as EIO, because a failed batch must never look like a success.
void setFatalError(int code);

// Returns the code that this process could not write to the marker; else the first number in the
// marker, 0 without a marker, -1 if the marker cannot be read or holds no number.
int getFatalError();
