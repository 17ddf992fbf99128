#include "formats/shell_words.h"

#include <algorithm>
#include <utility>

namespace {

bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("_-./,:@%+=").find(c) != std::string_view::npos;
}

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n';
}

}  // namespace

std::string shellWord(std::string_view word) {
  if (!word.empty() && std::all_of(word.begin(), word.end(), isPlain)) return std::string(word);
  std::string quoted = "'";
  for (const char c : word) {
    if (c == '\'')
      quoted += "'\\''";
    else
      quoted += c;
  }
  return quoted + "'";
}

bool splitWords(std::string_view text, std::vector<std::string> *words, std::string *problem) {
  words->clear();
  std::string word;
  bool in_word = false;
  char quote = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '\\' && quote != '\'') {
      if (at + 1 >= text.size()) {
        *problem = "backslash at the end";
        return false;
      }
      const char next = text[++at];
      if (next == '\n') continue;
      if (quote == '"' && std::string_view("$`\"\\").find(next) == std::string_view::npos) word += '\\';
      word += next;
      in_word = true;
    } else if (quote != 0) {
      if (c == quote)
        quote = 0;
      else
        word += c;
    } else if (c == '\'' || c == '"') {
      quote = c;
      in_word = true;
    } else if (!isBlank(c)) {
      word += c;
      in_word = true;
    } else if (in_word) {
      words->push_back(std::exchange(word, {}));
      in_word = false;
    }
  }
  if (quote != 0) {
    *problem = "quote without end";
    return false;
  }
  if (in_word) words->push_back(std::move(word));
  return true;
}
