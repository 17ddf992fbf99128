// Octal escapes, a backslash and three octal digits, as used by mount tables and snapshot lists.
#pragma once

#include <string>
#include <string_view>

// Replaces blanks, control bytes and backslashes of `text` by octal escapes.
std::string octalEscaped(std::string_view text);
// Decodes octal escapes. Keeps a backslash that three octal digits do not follow.
std::string octalUnescaped(std::string_view word);
