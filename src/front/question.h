// Asking the user.
#pragma once

#include <string>

namespace front {

// True where somebody can be asked: standard input and standard error are a terminal.
bool canAsk();
// Asks on standard error; true for a yes in the user's language. Anything else, and the end of the
// input, is a no.
bool ask(const std::string &question);

}  // namespace front
