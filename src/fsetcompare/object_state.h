// Compares the properties of an object besides its data: owner, mode, times, attributes, flags, link
// target and device.
#pragma once

#include <sys/stat.h>

#include <string>

#include "base/result.h"
#include "fsetcompare/report.h"
#include "kest.h"

// Returns the name of the type in an st_mode: "file", "directory", "link", "fifo", "socket", "char" or
// "block".
const char *kindName(uint32_t mode);

// In both, rc of a failure is the errno.

// Reads the object's present state.
Result statObject(const kest_ifile_t *file, struct stat *st);

// Reports how two objects of one type differ, except in data, hard links and clones.
Result compareProperties(kest_ifile_t *active, kest_ifile_t *snapshot, const std::string &path,
                         Report *report);
