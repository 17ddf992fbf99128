#include "base/octal.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr size_t kDigits = 3;

bool isDigit(char c) {
  return c >= '0' && c <= '7';
}

}  // namespace

std::string octalEscaped(std::string_view text) {
  std::string word;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= ' ' || byte == '\\' || byte == 0x7f) {
      char code[5];
      snprintf(code, sizeof code, "\\%03o", byte);
      word += code;
    } else {
      word += c;
    }
  }
  return word;
}

std::string octalUnescaped(std::string_view word) {
  std::string text;
  for (size_t at = 0; at < word.size(); ++at) {
    const std::string_view digits = word.substr(at + 1, kDigits);
    if (word[at] == '\\' && digits.size() == kDigits &&
        std::all_of(digits.begin(), digits.end(), isDigit)) {
      text += static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 + (digits[2] - '0'));
      at += kDigits;
    } else {
      text += word[at];
    }
  }
  return text;
}
