// The comparison of the trees, as far as the workers of several nodes do it.
#pragma once

#include <cstddef>

#include "base/result.h"

// Has the comparison of handles.iscanP, which must not have begun, divided among the workers of this
// run. Does nothing in a run of one node, or if the file system cannot divide it. rc of a failure is
// the errno, after a message. Master only.
Result shareScan(size_t nodes);
