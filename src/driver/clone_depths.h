// The clone lists that exist. Master only.
#pragma once

#include <vector>

enum class CloneLists {
  kDelete,   // clone.del.<d>: depths up to 1001, deepest first
  kRestore,  // clone.<d>: depths up to 1000, shallowest first
};

// Depths in the order in which they are worked off. 0, or an errno; EINVAL, after a message, for a list
// that is deeper than what is ever worked off.
int listedCloneDepths(CloneLists kind, std::vector<int> *depths);
