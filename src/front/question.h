// Asks the user.
#pragma once

#include <string>

namespace front {

// Returns true if standard input and standard error are a terminal.
bool canAsk();
// Asks on standard error. Returns true for a yes in the user's language; anything else, and the end of
// the input, is a no.
bool ask(const std::string &question);

}  // namespace front
