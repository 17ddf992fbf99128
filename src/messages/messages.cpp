#include "messages/messages.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "messages/catalogue.h"

const char *messageText(Message id) {
  const MessageText &entry = kMessages[static_cast<int>(id)];
  return entry.set == 0 ? entry.text : catMsg(entry.set, entry.number, entry.text);
}

void printMessage(Message id, ...) {
  const int saved = errno;
  va_list args;
  va_start(args, id);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the text was checked against the arguments
  vfprintf(stderr, messageText(id), args);
#pragma GCC diagnostic pop
  va_end(args);
  errno = saved;
}
