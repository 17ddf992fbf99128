// The sentence that explains the last failure of this thread.
#pragma once

#include <string>

namespace kest {

void setErrorText(std::string text);
const std::string &errorText();  // "" where there is nothing to add to the error number

// Sets the sentence for a call that fails with `error`. -error.
int failWith(int error, std::string text);

}  // namespace kest
