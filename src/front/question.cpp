#include "front/question.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "messages/front_texts.h"

namespace front {

bool canAsk() {
  return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

bool ask(const std::string &question) {
  fflush(stdout);
  fprintf(stderr, "%s ", question.c_str());
  fflush(stderr);
  char *raw = nullptr;
  size_t size = 0;
  const ssize_t length = getline(&raw, &size, stdin);
  const std::unique_ptr<char, decltype(&free)> answer(raw, free);
  return length > 0 && frontText(FrontText::kYesLetters).find(answer.get()[0]) != std::string::npos;
}

}  // namespace front
