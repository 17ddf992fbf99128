#include "filesystem/error_text.h"

#include <utility>

namespace kest {

namespace {
thread_local std::string error_text;
}

void setErrorText(std::string text) {
  error_text = std::move(text);
}

const std::string &errorText() {
  return error_text;
}

int failWith(int error, std::string text) {
  setErrorText(std::move(text));
  return -error;
}

}  // namespace kest
