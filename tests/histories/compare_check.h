// compare_check.h: the comparing command against the fingerprints.
#pragma once

#include <string>
#include <vector>

namespace histories {

// Runs fsetcompare by the difference scan and with --full. One line where its exit status is not that
// of trees that are equal, or not, as `differences` of their fingerprints say, or where the two ways
// tell different things; `when` begins each.
std::vector<std::string> checkCompare(const std::string &device, const std::string &fileset,
                                      const std::string &snapshot, const std::string &when,
                                      const std::vector<std::string> &differences);

}  // namespace histories
