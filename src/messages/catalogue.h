// The message catalogue kest.cat: translated texts by set and number.
#pragma once

// Takes the locale from the environment, opens the catalogue and makes standard output and standard
// error line-buffered. First thing in main, in every mode.
void initMessages();

// The catalogue's text for (set, number), or `defaultText`: without a catalogue, without the entry, and
// where the entry's conversions are not those of the default, since callers pass the result to printf.
// The text belongs to the catalogue or the caller. Keeps errno.
const char *catMsg(int set, int number, const char *defaultText);

// True when both printf formats take the same arguments in the same order. A format with argument
// positions or widths taken from arguments never matches another.
bool sameConversions(const char *a, const char *b);

// What catMsg asks; tests put a table of their own here. The default asks the open catalogue.
using CatalogueLookup = const char *(*)(int set, int number, const char *defaultText);
CatalogueLookup setCatalogueLookup(CatalogueLookup lookup);  // returns the one before
