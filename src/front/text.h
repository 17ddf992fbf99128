// Formats names, sizes and ages for people.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace front {

// Returns a name in a form that is safe on a terminal. Anybody can choose the bytes of a name, so \xNN
// replaces everything that could control a terminal or mislead a reader: control characters (also C1),
// bytes that are not UTF-8, and characters that change the direction of writing. Doubles a backslash.
std::string shown(std::string_view name);

// Decodes the escapes in the paths of fsetcompare's lines: \\, \n, \t and \xNN. Keeps anything else.
std::string unescaped(std::string_view text);

// Returns true if all of it is UTF-8 according to RFC 3629: no overlong forms, surrogates or numbers
// above the limit.
bool isUtf8(std::string_view text);

// Returns a size such as "17 B" or "33.1 MiB".
std::string byteText(uint64_t bytes);
// Returns a duration in the largest unit of which it has at least two: "95 s", "19 h", "3 days".
std::string ageText(int64_t seconds);

// Returns the number of columns of `text`, UTF-8 without control characters, on a terminal: one per
// character.
size_t columns(std::string_view text);
// Fill up with blanks on the right, or on the left.
std::string padded(std::string text, size_t width);
std::string rightAligned(std::string text, size_t width);

}  // namespace front
