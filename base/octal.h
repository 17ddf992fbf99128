// Words in which bytes stand as a backslash and three octal digits, as in mount tables and snapshot
// lists.
#pragma once

#include <string>
#include <string_view>

// Blanks, control bytes and backslashes of `text` become octal escapes.
std::string octalEscaped(std::string_view text);
// Undoes it. A backslash without three octal digits stands for itself.
std::string octalUnescaped(std::string_view word);
