// Removing names.
#pragma once

#include "base/result.h"
#include "formats/operation.h"

// Op 7. Done also when the name is gone already. A clone is only set aside in phase 3; phase 31 removes
// it. Failures are traced.
Result deleteFile(const Record &record);
