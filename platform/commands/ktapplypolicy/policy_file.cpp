#include "commands/ktapplypolicy/policy_file.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "btrfs/unique_fd.h"

namespace kest {
namespace {

constexpr size_t kMaxPolicyBytes = 1 << 20;

struct Token {
  enum Kind { kWord, kString, kOther } kind;
  std::string text;  // words in upper case
};

bool tokenize(std::string_view text, std::vector<Token> *tokens, std::string *problem) {
  size_t at = 0;
  while (at < text.size()) {
    char c = text[at];
    if (isspace(static_cast<unsigned char>(c))) {
      at++;
    } else if (text.substr(at, 2) == "/*") {
      size_t end = text.find("*/", at + 2);
      if (end == std::string_view::npos) {
        *problem = "comment without end";
        return false;
      }
      at = end + 2;
    } else if (c == '\'' || c == '"') {
      Token token{Token::kString, {}};
      for (at++;; at++) {
        if (at >= text.size()) {
          *problem = "quote without end";
          return false;
        }
        if (text[at] == c) {
          if (at + 1 >= text.size() || text[at + 1] != c) break;
          at++;
        }
        token.text += text[at];
      }
      at++;
      tokens->push_back(std::move(token));
    } else if (isalnum(static_cast<unsigned char>(c)) || c == '_') {
      Token token{Token::kWord, {}};
      while (at < text.size() && (isalnum(static_cast<unsigned char>(text[at])) || text[at] == '_')) {
        token.text += static_cast<char>(toupper(static_cast<unsigned char>(text[at++])));
      }
      tokens->push_back(std::move(token));
    } else {
      tokens->push_back({Token::kOther, std::string(1, c)});
      at++;
    }
  }
  return true;
}

class RuleParser {
 public:
  RuleParser(const std::vector<Token> &tokens, std::string *problem)
      : tokens_(tokens), problem_(problem) {}

  bool parse(ScriptRule *rule) {
    bool found = false;
    for (size_t at = 0; at < tokens_.size(); at++) {
      if (!isWord(at, "RULE")) continue;
      size_t clause = at + 1;
      if (isName(clause)) clause++;
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
    while (at < tokens_.size() && !isWord(at, "RULE") && tokens_[at].text != ";") {
      bool exec = isWord(at, "EXEC");
      if (!exec && !isWord(at, "OPTS")) {
        return fail("EXTERNAL LIST: " + tokens_[at].text + " is not known here");
      }
      if (!isString(at + 1)) return fail(tokens_[at].text + " needs a quoted string");
      bool &have = exec ? have_exec : have_options;
      if (have) return fail(tokens_[at].text + " is given twice");
      have = true;
      const std::string &value = tokens_[at + 1].text;
      if (exec) {
        rule->exec = value;
      } else if (!splitWords(value, &rule->options, problem_)) {
        return fail("OPTS: " + *problem_);
      }
      at += 2;
    }
    if (rule->exec.empty()) return fail("EXTERNAL LIST: no EXEC program");
    return true;
  }

  const std::vector<Token> &tokens_;
  std::string *problem_;
};

}  // namespace

bool parsePolicy(std::string_view text, ScriptRule *rule, std::string *problem) {
  *rule = {};
  if (text.find('\0') != std::string_view::npos) {
    *problem = "it holds a NUL byte";
    return false;
  }
  std::vector<Token> tokens;
  return tokenize(text, &tokens, problem) && RuleParser(tokens, problem).parse(rule);
}

bool splitWords(std::string_view text, std::vector<std::string> *words, std::string *problem) {
  words->clear();
  std::string word;
  bool in_word = false;
  char quote = 0;
  for (size_t at = 0; at < text.size(); at++) {
    char c = text[at];
    if (c == '\\' && quote != '\'') {
      if (at + 1 >= text.size()) {
        *problem = "backslash at the end";
        return false;
      }
      char next = text[++at];
      if (next == '\n') continue;
      if (quote == '"' && !strchr("$`\"\\", next)) word += '\\';
      word += next;
      in_word = true;
    } else if (quote) {
      if (c == quote) {
        quote = 0;
      } else {
        word += c;
      }
    } else if (c == '\'' || c == '"') {
      quote = c;
      in_word = true;
    } else if (c == ' ' || c == '\t' || c == '\n') {
      if (in_word) words->push_back(std::move(word));
      word.clear();
      in_word = false;
    } else {
      word += c;
      in_word = true;
    }
  }
  if (quote) {
    *problem = "quote without end";
    return false;
  }
  if (in_word) words->push_back(std::move(word));
  return true;
}

bool readPolicyFile(const RunDirectory &directory, const std::string &path, ScriptRule *rule,
                    std::string *problem) {
  const int opened = directory.openFile(path, O_RDONLY);
  errno = -std::min(opened, 0);
  UniqueFd fd(opened);
  std::string text;
  char part[8192];
  ssize_t got = -1;
  while (fd && text.size() <= kMaxPolicyBytes) {
    got = read(fd.get(), part, sizeof(part));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    text.append(part, static_cast<size_t>(got));
  }
  if (got < 0) {
    *problem = strerror(errno);
    return false;
  }
  if (text.size() > kMaxPolicyBytes) {
    *problem = "larger than a policy can be";
    return false;
  }
  return parsePolicy(text, rule, problem);
}

}  // namespace kest
