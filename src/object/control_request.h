// Control requests for the immutable and append-only flags.
#pragma once

#include <string>

struct InodeFlags {
  bool immutable = false;
  bool appendOnly = false;
};

// Reads both flags of an open descriptor; 0 or -1 and errno.
int getInodeFlags(int fd, InodeFlags *flags);
// Clears both; 0 or -1 and errno.
int clearInodeFlags(int fd);
// Sets or clears one; 0 or -1 and errno.
int setImmutableFlag(int fd, bool on);
int setAppendOnlyFlag(int fd, bool on);
