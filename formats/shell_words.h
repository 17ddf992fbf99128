// Quotes and splits words of command lines like a shell.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Returns `word` unchanged if none of its characters is special to a shell, else in single quotes.
std::string shellWord(std::string_view word);

// Splits like a shell: blanks separate words, '...' is literal, in "..." a backslash escapes $ ` " and
// itself and newline, and elsewhere it escapes any character. Expands nothing and treats no other
// character specially. Returns false and *problem for an unterminated quote or a backslash at the end.
bool splitWords(std::string_view text, std::vector<std::string> *words, std::string *problem);
