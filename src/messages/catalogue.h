// The message catalogue kest.cat: translated texts by set and number.
#pragma once

// Sets the locale from the environment, opens the catalogue and makes standard output and standard
// error line-buffered. Every program calls this first in main.
void initMessages();

// Returns the catalogue's text for (set, number). Returns `defaultText` if there is no catalogue or no
// such entry, or if the entry's conversions differ from those of the default, because callers pass the
// result to printf. The catalogue or the caller owns the text. Keeps errno.
const char *catMsg(int set, int number, const char *defaultText);

// True when both printf formats take the same arguments in the same order. A format with argument
// positions or widths taken from arguments never matches another.
bool sameConversions(const char *a, const char *b);

// The function that catMsg asks. The default asks the open catalogue; tests install a table of their
// own.
using CatalogueLookup = const char *(*)(int set, int number, const char *defaultText);
CatalogueLookup setCatalogueLookup(CatalogueLookup lookup);  // returns the previous one
