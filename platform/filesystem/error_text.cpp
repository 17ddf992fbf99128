#include "filesystem/error_text.h"

#include <utility>

namespace kest {

namespace {
thread_local std::string error_text;
void (*forward)(std::string text) = nullptr;
}  // namespace

void setErrorText(std::string text) {
  if (forward != nullptr) forward(text);
  error_text = std::move(text);
}

void forwardErrorText(void (*to)(std::string text)) {
  forward = to;
}

const std::string &errorText() {
  return error_text;
}

int failWith(int error, std::string text) {
  setErrorText(std::move(text));
  return -error;
}

}  // namespace kest
