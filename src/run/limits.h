// Resource limits that this process inherited.
#pragma once

// Every program calls this first. A write beyond RLIMIT_FSIZE then fails with EFBIG instead of raising
// SIGXFSZ, in this process and in the commands that it starts. Raises a soft stack limit that is too
// small for the deepest tree. Returns false, after a message, if the hard limit forbids that.
bool prepareLimits();
