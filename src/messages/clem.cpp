#include "messages/clem.h"

// The assertion at the end of printCLEM must also stop a release build.
#undef NDEBUG
#include <cassert>
#include <cstdarg>
#include <cstdio>

#include "messages/messages.h"

namespace {

// This program uses one of the 35 selectors that the commands of the file system share.
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
  // The assertion names the module by its historical path, which is part of the text that users know.
  __assert_fail("!\"Unknown message number in printCLEM\"", "cfgmgr/clem", __LINE__, "printCLEM");
}
