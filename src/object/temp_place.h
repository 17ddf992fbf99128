// Paths through temporary locations.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct TempPlace {
  uint64_t ino = 0;         // of the moved object
  std::string_view inside;  // path below it; empty: the object itself
};

// Takes a path in the work directory apart; false when it lies in no temporary location. `place` refers
// to `path`.
bool parseTempPlace(std::string_view path, TempPlace *place);

// A directory that has gone home leaves a link at its temporary location, which tells where it is.
// Returns `path` without such links, as it is where none is on the way. Any other link stays in the
// path: the library follows none.
std::string linkFree(const std::string &path);
