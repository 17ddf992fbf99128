// Gives an ordinary descriptor of an open inode, for calls that the library does not have.
#pragma once

#include "base/result.h"
#include "base/unique_fd.h"
#include "kest.h"

// Opens the file or directory for reading, close-on-exec. Does not change the access time if the kernel
// permits that. rc of a failure is the errno.
Result openForReading(const kest_ifile_t *file, UniqueFd *fd);
