// Words of command lines, as a shell reads and writes them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// `word` as it stands when it holds only characters that mean nothing to a shell, else in single
// quotes.
std::string shellWord(std::string_view word);

// Splits as a shell splits a command line: blanks separate; '...' is literal; in "..." a backslash
// escapes $ ` " \ and newline; elsewhere it escapes any character. Nothing is expanded and no other
// character means anything. False and *problem on an open quote or a backslash at the very end.
bool splitWords(std::string_view text, std::vector<std::string> *words, std::string *problem);
