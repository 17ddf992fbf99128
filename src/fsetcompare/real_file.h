// An open inode as an ordinary descriptor, for calls that the library does not have.
#pragma once

#include "base/result.h"
#include "base/unique_fd.h"
#include "kest.h"

// A real descriptor for reading the file or directory, close-on-exec, that leaves the access time alone
// where the kernel allows it. rc of a failure is the errno.
Result openForReading(const kest_ifile_t *file, UniqueFd *fd);
