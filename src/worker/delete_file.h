// Removes names.
#pragma once

#include "base/result.h"
#include "formats/operation.h"

// Op 7. A name that no longer exists is no failure. Phase 3 only moves a clone aside; phase 31 deletes
// it. Failures are traced.
Result deleteFile(const Record &record);
