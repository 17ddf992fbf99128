// A sentence that explains the last failure of this thread.
#pragma once

#include <string>

namespace kest {

void setErrorText(std::string text);
const std::string &errorText();  // "" if there is nothing to add to the errno

// Passes every sentence to `to` as well. A library that libkest.so loads has its own copy of this
// module; it gives its sentences to the copy in libkest.so in this way.
void forwardErrorText(void (*to)(std::string text));

// Sets the sentence for a call that fails with `error` and returns -error.
int failWith(int error, std::string text);

}  // namespace kest
