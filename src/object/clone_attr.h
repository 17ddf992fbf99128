// The clone attributes of a file that a path names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "scan/clone_state.h"

// 1 for a clone or clone parent, with its attribute in *attr; 0 otherwise, also on every error
// (traced). `snap` may be null. The path lies in the active fileset, the work directory or the
// snapshot.
int getCloneXattr(const std::string &path, CloneAttr *attr, CloneSnapAttr *snap);

// Reads the file-system attribute "kest.<name>" of an open descriptor: 1 present, 0 absent, -1 error
// (errno).
int getFileAttribute(int fd, const std::string &name, std::vector<uint8_t> *value);
