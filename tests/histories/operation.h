// operation.h: one step of a history, which can be printed, parsed and replayed on any tree.
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

// Performs it. Returns false if the kernel refused (a tree may be removed in part then).
bool apply(testsupport::TreeBuilder &tree, const Operation &operation);

// "rename "a/b" "c" 0 0 0": one line without newline, in the form for parse.
std::string print(const Operation &operation);
// Throws std::runtime_error if the line is no operation.
Operation parse(const std::string &line);

struct History {
  std::vector<Operation> initial;  // build the tree before the snapshot
  std::vector<Operation> changes;  // after the snapshot
  std::vector<Operation> later;    // after the first restore, which a second one follows
};

// Numbered lines in three sections, and their parser, which ignores the numbers.
std::string print(const History &history);
History parseHistory(const std::string &text);

}  // namespace histories
