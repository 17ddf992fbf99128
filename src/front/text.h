// Names, sizes and ages as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace front {

// A name for a terminal. Names are bytes that anybody may have chosen, so all that could steer a
// terminal or mislead a reader stands as \xNN: control characters (C1 too), bytes that are not UTF-8,
// and the characters that change the direction of writing. A backslash is doubled.
std::string shown(std::string_view name);

// Undoes what fsetcompare does to the paths in its lines: \\, \n, \t and \xNN. Anything else stands for
// itself.
std::string unescaped(std::string_view text);

// True when all of it is UTF-8 as RFC 3629 has it: no overlong forms, surrogates or numbers too large.
bool isUtf8(std::string_view text);

// "17 B", "33.1 MiB".
std::string byteText(uint64_t bytes);
// Length of a time in the largest unit of which it holds at least two: "95 s", "19 h", "3 days".
std::string ageText(int64_t seconds);

// Columns that `text`, UTF-8 without control characters, takes on a terminal: one a character.
size_t columns(std::string_view text);
// Fills up with blanks at the end, or at the start.
std::string padded(std::string text, size_t width);
std::string rightAligned(std::string text, size_t width);

}  // namespace front
