// The sentence that explains the last failure of this thread.
#pragma once

#include <string>

namespace kest {

void setErrorText(std::string text);
const std::string &errorText();  // "" where there is nothing to add to the error number

// For a library that another one loads, and that has a copy of this module: the sentences go to `to`, too.
void forwardErrorText(void (*to)(std::string text));

// Sets the sentence for a call that fails with `error`. -error.
int failWith(int error, std::string text);

}  // namespace kest
