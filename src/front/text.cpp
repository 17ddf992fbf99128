#include "front/text.h"

#include <cstdio>

#include "messages/front_texts.h"

namespace front {

namespace {

// Returns the length of the UTF-8 character at the start of `text` and its code point; 0 if there is
// none.
size_t characterAt(std::string_view text, uint32_t *number) {
  const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char first = byte(0);
  if (first < 0x80) {
    *number = first;
    return 1;
  }
  const size_t length = first >= 0xf0 && first <= 0xf4   ? 4
                        : first >= 0xe0 && first <= 0xef ? 3
                        : first >= 0xc2 && first <= 0xdf ? 2
                                                         : 0;
  if (length == 0 || text.size() < length) return 0;
  uint32_t value = first & (0x7fu >> length);
  for (size_t at = 1; at < length; ++at) {
    if ((byte(at) & 0xc0) != 0x80) return 0;
    value = value << 6 | (byte(at) & 0x3f);
  }
  const bool overlong = value < (length == 4 ? 0x10000u : length == 3 ? 0x800u : 0x80u);
  if (overlong || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) return 0;
  *number = value;
  return length;
}

bool mayMislead(uint32_t number) {
  return number < 0x20 || (number >= 0x7f && number <= 0x9f) || number == 0x2028 || number == 0x2029 ||
         number == 0x200e || number == 0x200f || (number >= 0x202a && number <= 0x202e) ||
         (number >= 0x2066 && number <= 0x2069);
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::string shown(std::string_view name) {
  std::string text;
  while (!name.empty()) {
    uint32_t number = 0;
    const size_t length = characterAt(name, &number);
    const size_t bytes = length == 0 ? 1 : length;
    if (number == '\\' && length == 1) {
      text += "\\\\";
    } else if (length != 0 && !mayMislead(number)) {
      text += name.substr(0, bytes);
    } else {
      for (const char c : name.substr(0, bytes)) {
        char code[8];
        snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
        text += code;
      }
    }
    name.remove_prefix(bytes);
  }
  return text;
}

std::string unescaped(std::string_view text) {
  std::string name;
  for (size_t at = 0; at < text.size(); ++at) {
    const char next = at + 1 < text.size() ? text[at + 1] : '\0';
    if (text[at] != '\\') {
      name += text[at];
    } else if (next == '\\' || next == 'n' || next == 't') {
      name += next == 'n' ? '\n' : next == 't' ? '\t' : '\\';
      ++at;
    } else if (next == 'x' && at + 3 < text.size() && hexDigit(text[at + 2]) >= 0 &&
               hexDigit(text[at + 3]) >= 0) {
      name += static_cast<char>(hexDigit(text[at + 2]) * 16 + hexDigit(text[at + 3]));
      at += 3;
    } else {
      name += text[at];
    }
  }
  return name;
}

bool isUtf8(std::string_view text) {
  uint32_t number;
  while (!text.empty()) {
    const size_t length = characterAt(text, &number);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string byteText(uint64_t bytes) {
  static constexpr const char *kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  // A value from 1023.95 on would be rounded to 1024.0.
  for (; value >= 1023.95 && unit + 1 < std::size(kUnits); ++unit) value /= 1024;
  char text[32];
  if (unit == 0)
    snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
  else
    snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string ageText(int64_t seconds) {
  constexpr int64_t kMinute = 60, kHour = 3600, kDay = 86400;
  if (seconds < 2 * kMinute) return frontText(FrontText::kSeconds, seconds);
  if (seconds < 2 * kHour) return frontText(FrontText::kMinutes, seconds / kMinute);
  if (seconds < 2 * kDay) return frontText(FrontText::kHours, seconds / kHour);
  return frontText(FrontText::kDays, seconds / kDay);
}

size_t columns(std::string_view text) {
  size_t count = 0;
  for (const char c : text)
    if ((static_cast<unsigned char>(c) & 0xc0) != 0x80) ++count;
  return count;
}

std::string padded(std::string text, size_t width) {
  const size_t used = columns(text);
  if (used < width) text.append(width - used, ' ');
  return text;
}

std::string rightAligned(std::string text, size_t width) {
  const size_t used = columns(text);
  if (used < width) text.insert(0, width - used, ' ');
  return text;
}

}  // namespace front
