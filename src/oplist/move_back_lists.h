// The lists of objects that wait in temporary locations. Master only.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "run/work_file.h"

// regMoveList of the current pass and dirMoveList of the whole run; opened at the first record, closed
// by the driver.
extern std::unique_ptr<WorkFile> regMvfP, dirMvfP;

// Appends the op 4 record that brings a non-directory back from its temporary location. 0 or an errno.
int ListRegMoveBack(uint64_t ino);

// Appends a directory for the final directory move. 0 or an errno.
int ListDirMoveBack(uint64_t ino);

// The directories listed so far, in order.
const std::vector<uint64_t> &listedDirMoves();
