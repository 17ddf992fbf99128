#include "formats/policy_text.h"

#include <cctype>
#include <utility>

#include "formats/shell_words.h"

namespace {

// Returns the text in the form for single quotes in a policy, where a quote is doubled.
std::string quotable(const std::string &text) {
  std::string quoted;
  for (const char c : text) {
    quoted += c;
    if (c == '\'') quoted += c;
  }
  return quoted;
}

bool isSpace(char c) {
  return isspace(static_cast<unsigned char>(c)) != 0;
}

bool isWordCharacter(char c) {
  return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

struct Token {
  enum Kind { kWord, kString, kOther } kind;
  std::string text;  // words in upper case, strings without their quotes
};

class Tokenizer {
 public:
  Tokenizer(std::string_view text, std::string *problem) : text_(text), problem_(problem) {}

  bool read(std::vector<Token> *tokens) {
    while (at_ < text_.size()) {
      const char c = text_[at_];
      if (isSpace(c)) {
        ++at_;
      } else if (text_.substr(at_, 2) == "/*") {
        if (!skipComment()) return false;
      } else if (c == '\'' || c == '"') {
        tokens->push_back({Token::kString, {}});
        if (!readString(&tokens->back().text)) return false;
      } else if (isWordCharacter(c)) {
        tokens->push_back({Token::kWord, readWord()});
      } else {
        tokens->push_back({Token::kOther, std::string(1, c)});
        ++at_;
      }
    }
    return true;
  }

 private:
  bool skipComment() {
    const size_t end = text_.find("*/", at_ + 2);
    if (end == std::string_view::npos) {
      *problem_ = "comment without end";
      return false;
    }
    at_ = end + 2;
    return true;
  }

  bool readString(std::string *string) {
    const char quote = text_[at_];
    while (++at_ < text_.size()) {
      if (text_[at_] == quote) {
        ++at_;
        if (at_ >= text_.size() || text_[at_] != quote) return true;
      }
      *string += text_[at_];
    }
    *problem_ = "quote without end";
    return false;
  }

  std::string readWord() {
    std::string word;
    for (; at_ < text_.size() && isWordCharacter(text_[at_]); ++at_)
      word += static_cast<char>(toupper(static_cast<unsigned char>(text_[at_])));
    return word;
  }

  const std::string_view text_;
  std::string *problem_;
  size_t at_ = 0;
};

class RuleParser {
 public:
  RuleParser(const std::vector<Token> &tokens, std::string *problem)
      : tokens_(tokens), problem_(problem) {}

  bool parse(ScriptRule *rule) {
    bool found = false;
    for (size_t at = 0; at < tokens_.size(); ++at) {
      if (!isWord(at, "RULE")) continue;
      size_t clause = at + 1;
      if (isName(clause)) ++clause;
      if (!isWord(clause, "EXTERNAL") || !isWord(clause + 1, "LIST") || !isString(clause + 2)) continue;
      if (found) return fail("more than one EXTERNAL LIST rule");
      found = true;
      if (!parseClauses(clause + 3, rule)) return false;
    }
    return found || fail("no EXTERNAL LIST rule");
  }

 private:
  bool isWord(size_t at, const char *word) const {
    return at < tokens_.size() && tokens_[at].kind == Token::kWord && tokens_[at].text == word;
  }
  bool isString(size_t at) const { return at < tokens_.size() && tokens_[at].kind == Token::kString; }
  bool isName(size_t at) const {
    return isString(at) ||
           (at < tokens_.size() && tokens_[at].kind == Token::kWord && !isWord(at, "EXTERNAL"));
  }
  bool fail(const std::string &text) {
    *problem_ = text;
    return false;
  }

  bool parseClauses(size_t at, ScriptRule *rule) {
    bool have_exec = false, have_options = false;
    for (; at < tokens_.size() && !isWord(at, "RULE") && tokens_[at].text != ";"; at += 2) {
      const bool exec = isWord(at, "EXEC");
      if (!exec && !isWord(at, "OPTS"))
        return fail("EXTERNAL LIST: " + tokens_[at].text + " is not known here");
      if (!isString(at + 1)) return fail(tokens_[at].text + " needs a quoted string");
      if (std::exchange(exec ? have_exec : have_options, true))
        return fail(tokens_[at].text + " is given twice");
      const std::string &value = tokens_[at + 1].text;
      if (exec)
        rule->exec = value;
      else if (!splitWords(value, &rule->options, problem_))
        return fail("OPTS: " + *problem_);
    }
    return !rule->exec.empty() || fail("EXTERNAL LIST: no EXEC program");
  }

  const std::vector<Token> &tokens_;
  std::string *problem_;
};

}  // namespace

std::string formatPolicy(const std::string &exec, const std::string &options) {
  return "RULE EXTERNAL LIST 'all'  EXEC '" + quotable(exec) + "' OPTS ' " + quotable(options) +
         "'\n          RULE 'noop' LIST 'all' DIRECTORIES_PLUS\n"
         "          SHOW('d')WHERE MODE LIKE 'd%'\n";
}

bool parsePolicy(std::string_view text, ScriptRule *rule, std::string *problem) {
  *rule = {};
  if (text.find('\0') != std::string_view::npos) {
    *problem = "it holds a NUL byte";
    return false;
  }
  std::vector<Token> tokens;
  return Tokenizer(text, problem).read(&tokens) && RuleParser(tokens, problem).parse(rule);
}
