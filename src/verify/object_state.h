// What is compared of an object beside its data: owner, mode, times, attributes, flags, target, device.
#pragma once

#include <sys/stat.h>

#include <string>

#include "kest.h"
#include "verify/report.h"

// "file", "directory", "link", "fifo", "socket", "char", "block", by an st_mode.
const char *kindName(uint32_t mode);

// A real descriptor for reading the file or directory, close-on-exec, that leaves the access time alone
// where the kernel allows it. -1 and errno.
int openForReading(const kest_ifile_t *file);

// The object as it is now. 0, or -1 and errno.
int statObject(const kest_ifile_t *file, struct stat *st);

// Reports what differs between two objects of one type, but data, link groups and clones. 0 or an
// errno.
int compareProperties(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                      Report *report);
