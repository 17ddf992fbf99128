// The limits of the process that its starter may have set.
#pragma once

// To be called first in a program. A file that would become larger than allowed is an error (EFBIG)
// from now on, here and in commands, and no signal. False, after a message, where the stack may not
// grow as far as the deepest tree needs.
bool prepareLimits();
