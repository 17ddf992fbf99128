#include "messages/catalogue.h"

#include <langinfo.h>
#include <locale.h>
#include <nl_types.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cerrno>
#include <string>

namespace {

const nl_catd kNoCatalogue = reinterpret_cast<nl_catd>(-1);
nl_catd CatHandle = kNoCatalogue;

const char *askCatalogue(int set, int number, const char *defaultText) {
  if (CatHandle == kNoCatalogue) return defaultText;
  const int saved = errno;
  sigset_t block, before;
  sigemptyset(&block);
  // A handler of SIGUSR1 must not run inside catgets(), which is not async-signal-safe.
  sigaddset(&block, SIGUSR1);
  const bool blocked = pthread_sigmask(SIG_BLOCK, &block, &before) == 0;
  const char *text = catgets(CatHandle, set, number, defaultText);
  if (blocked) pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = saved;
  return text;
}

CatalogueLookup lookup = askCatalogue;

// Moves *at past the next conversion and stores its length modifier and letter in `type`. Returns 1 if
// it found one, 0 at the end of the format, -1 for a form that is not supported.
int nextConversion(const char **at, char type[4]) {
  for (;;) {
    const char *percent = strchr(*at, '%');
    if (!percent) return 0;
    if (percent[1] == '%') {
      *at = percent + 2;
      continue;
    }
    const char *p = percent + 1;
    p += strspn(p, "-+ #0'I");
    p += strspn(p, "0123456789");
    if (*p == '.') {
      ++p;
      p += strspn(p, "0123456789");
    }
    if (*p == '*' || *p == '$' || !*p) return -1;
    size_t modifier = strspn(p, "hlqLjzt");
    if (modifier > 2) return -1;
    memcpy(type, p, modifier);
    p += modifier;
    if (!*p) return -1;
    type[modifier] = *p;
    type[modifier + 1] = '\0';
    *at = p + 1;
    return 1;
  }
}

// The language of messages as two or three letters, taken from the environment alone: for a locale that
// was not generated on this machine, the C library reports "C". Returns "" where no language is set, or
// where the terminal's encoding is not UTF-8, which the catalogues are in.
std::string wantedLanguage() {
  const char *locale = nullptr;
  for (const char *name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    locale = getenv(name);
    if (locale && *locale) break;
  }
  if (!locale) return "";
  const size_t letters = strspn(locale, "abcdefghijklmnopqrstuvwxyz");
  if (letters < 2 || letters > 3 || !strchr("_.@", locale[letters])) return "";
  const bool utf8 = strcasestr(locale, "utf-8") || strcasestr(locale, "utf8") ||
                    strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  return utf8 ? std::string(locale, letters) : "";
}

// Tries the C library's own search path first, then the folders that the package installs into.
nl_catd openCatalogue() {
  nl_catd found = catopen("kest.cat", NL_CAT_LOCALE);
  const std::string language = found == kNoCatalogue ? wantedLanguage() : "";
  if (language.empty()) return found;
  for (const char *folder : {"/usr/share/locale/", "/usr/qtx/kest/share/locale/"}) {
    found = catopen((folder + language + "/LC_MESSAGES/kest.cat").c_str(), 0);
    if (found != kNoCatalogue) break;
  }
  return found;
}

}  // namespace

void initMessages() {
  // Only these two categories matter for texts. Each further one would open one more file at every
  // start.
  setlocale(LC_CTYPE, "");
  setlocale(LC_MESSAGES, "");
  CatHandle = openCatalogue();
  setlinebuf(stdout);
  setlinebuf(stderr);
}

bool sameConversions(const char *a, const char *b) {
  for (;;) {
    char type_a[4], type_b[4];
    const int found_a = nextConversion(&a, type_a);
    const int found_b = nextConversion(&b, type_b);
    if (found_a < 0 || found_a != found_b) return false;
    if (found_a == 0) return true;
    if (strcmp(type_a, type_b) != 0) return false;
  }
}

const char *catMsg(int set, int number, const char *defaultText) {
  const char *text = lookup(set, number, defaultText);
  // A translation whose conversions do not match would make printf read arguments that are not there.
  if (text == defaultText) return text;
  return text && sameConversions(text, defaultText) ? text : defaultText;
}

CatalogueLookup setCatalogueLookup(CatalogueLookup replacement) {
  CatalogueLookup before = lookup;
  lookup = replacement ? replacement : askCatalogue;
  return before;
}
