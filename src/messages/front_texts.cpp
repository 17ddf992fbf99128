#include "messages/front_texts.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "messages/catalogue.h"

std::string formatFrontText(FrontText id, ...) {
  const int saved = errno;
  const int number = static_cast<int>(id);
  va_list args;
  va_start(args, id);
  char *raw = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the text was checked against the arguments
  const int length = vasprintf(&raw, catMsg(kFrontSet, number, kFrontTexts[number - 1].text), args);
#pragma GCC diagnostic pop
  va_end(args);
  const std::unique_ptr<char, decltype(&free)> owned(length < 0 ? nullptr : raw, free);
  errno = saved;
  return owned ? owned.get() : "";
}
