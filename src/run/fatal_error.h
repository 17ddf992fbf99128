// The fatal-error marker. Workers record an error that must stop the whole run; the master reads it.
#pragma once

#include "base/result.h"

// Appends the errno `code`, which is not 0, as a line to the marker. If that fails, traces it and keeps
// the code for recordedError. Workers.
void setFatalError(int code);

// Returns the recorded error as a failure, and success without one. The error is the one that this
// process could not write to the marker, else the first in the marker; it is cause and rc. If the
// marker cannot be read or holds no number, the cause is EIO and rc -1. Master and workers with nested
// runs.
Result recordedError();
