// What is compared of an object besides its data: owner, mode, times, attributes, flags, target,
// device.
#pragma once

#include <sys/stat.h>

#include <string>

#include "base/result.h"
#include "fsetcompare/report.h"
#include "kest.h"

// "file", "directory", "link", "fifo", "socket", "char", "block", by an st_mode.
const char *kindName(uint32_t mode);

// rc of a failure is the errno.

// The object as it is now.
Result statObject(const kest_ifile_t *file, struct stat *st);

// Reports what differs between two objects of one type, but data, link groups and clones.
Result compareProperties(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                         Report *report);
