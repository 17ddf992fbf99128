// operation.h: one step of a history, printable, readable again and replayable on any tree.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/tree_builder.h"

namespace histories {

enum class Verb {
  kFile,         // path, a: pattern seed, b: bytes
  kDir,          // path, a: mode
  kSymlink,      // path, other: target
  kFifo,         // path
  kSocket,       // path
  kDevice,       // path, a: 0 character, 1 block; b: major, c: minor
  kLink,         // path: existing, other: new name
  kRemove,       // path
  kRemoveTree,   // path
  kRename,       // path, other
  kExchange,     // path, other
  kWrite,        // path, a: offset, b: length, c: pattern seed
  kZeros,        // path, a: offset, b: length
  kTruncate,     // path, a: size
  kPunch,        // path, a: offset, b: length
  kPreallocate,  // path, a: offset, b: length, c: 1 keep size
  kReflink,      // path: source, other: new file
  kChmod,        // path, a: mode
  kChown,        // path, a: uid, b: gid
  kSetXattr,     // path, other: name, a: value seed, b: value length
  kRemoveXattr,  // path, other: name
  kSetAcl,       // path, other: attribute, a: user, b: rights
  kCapability,   // path: a file capability
  kMtime,        // path, a: seconds (signed), b: nanoseconds
  kImmutable,    // path, a: on
  kAppendOnly,   // path, a: on
  kNoCow,        // path, a: on
  kCompress,     // path, a: on
  kCloneParent,  // path
  kClone,        // path: parent, other: new file
  kCommit,       // syncfs
};

struct Operation {
  Verb verb;
  std::string path;
  std::string other;
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
};

// Numbered lines in two sections, and back; numbers in front of lines are ignored.
std::string print(const History &history);
History parseHistory(const std::string &text);

}  // namespace histories
