#include "messages/clem.h"

// The assertion below holds in release builds too.
#undef NDEBUG
#include <cassert>
#include <cstdarg>
#include <cstdio>

#include "messages/messages.h"

namespace {

// The selectors that this command uses, of the 35 that the commands of the file system share.
struct Clem {
  int selector;
  Message message;
};
constexpr Clem kClems[] = {{kClemTooFewArguments, Message::kTooFewArguments}};

}  // namespace

void printCLEM(const char * /*option*/, int msgSel, ...) {
  for (const Clem &entry : kClems) {
    if (entry.selector != msgSel) continue;
    va_list args;
    va_start(args, msgSel);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the catalogue's text fits the default
    vfprintf(stderr, messageText(entry.message), args);
#pragma GCC diagnostic pop
    va_end(args);
    return;
  }
  // The name of the file is part of the text, whatever the file is called now.
  __assert_fail("!\"Unknown message number in printCLEM\"", "cfgmgr/clem", __LINE__, "printCLEM");
}
