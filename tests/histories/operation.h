// operation.h: one step of a history, printable, readable again and replayable on any tree.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/tree_builder.h"

namespace histories {

struct Operation {
  std::string verb;  // see operation.cpp
  std::string path = {};
  std::string other = {};
  uint64_t a = 0, b = 0, c = 0;

  bool operator==(const Operation &) const = default;
};

// Performs it; false where the kernel refused (a part of a removed tree may be gone then).
bool apply(testsupport::TreeBuilder &tree, const Operation &operation);

// "rename "a/b" "c" 0 0 0": one line without newline, understood by parse.
std::string print(const Operation &operation);
// Throws std::runtime_error where the line is no operation.
Operation parse(const std::string &line);

struct History {
  std::vector<Operation> initial;  // build the tree of which the snapshot is taken
  std::vector<Operation> changes;  // since the snapshot
  std::vector<Operation> later;    // since the first restore; it is followed by another one
};

// Numbered lines in three sections, and back; numbers in front of lines are ignored.
std::string print(const History &history);
History parseHistory(const std::string &text);

}  // namespace histories
