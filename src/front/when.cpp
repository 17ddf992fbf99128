#include "front/when.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <string_view>

#include "front/program.h"
#include "front/text.h"
#include "front/trouble.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr char kDate[] = "/bin/date";
constexpr int64_t kDaySeconds = 86400;
constexpr std::array<std::string_view, 7> kWeekdays = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};
constexpr std::array<std::string_view, 19> kTimeWords = {
    "now", "today", "yesterday", "noon", "midnight", "ago", "last", "jan", "feb", "mar",
    "apr", "may",   "jun",       "jul",  "aug",      "sep", "oct",  "nov", "dec"};

bool hasDigit(const std::string &words) {
  return std::any_of(words.begin(), words.end(), [](unsigned char c) { return isdigit(c) != 0; });
}

// Calls test(word) for each run of letters, in lower case, until it returns true.
template <typename Test>
bool anyWord(const std::string &words, Test test) {
  std::string word;
  for (const char c : words + " ") {
    if (isalpha(static_cast<unsigned char>(c))) {
      word += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    } else {
      if (!word.empty() && test(word)) return true;
      word.clear();
    }
  }
  return false;
}

bool namesWeekday(const std::string &words) {
  return anyWord(words, [](const std::string &word) {
    return std::any_of(kWeekdays.begin(), kWeekdays.end(),
                       [&](std::string_view day) { return word.starts_with(day); });
  });
}

bool looksLikeTime(const std::string &words) {
  const bool digits_alone =
      std::all_of(words.begin(), words.end(), [](unsigned char c) { return isdigit(c) != 0; });
  if (digits_alone) return words.size() == 8;
  if (namesWeekday(words) || hasDigit(words)) return true;
  return anyWord(words, [](const std::string &word) {
    return std::any_of(kTimeWords.begin(), kTimeWords.end(),
                       [&](std::string_view known) { return word.starts_with(known); });
  });
}

// Returns true if the words name a whole day. date(1) then gives its first second.
bool isWholeDay(const std::string &words, int64_t moment) {
  tm parts{};
  const time_t seconds = moment;
  localtime_r(&seconds, &parts);
  if (parts.tm_hour != 0 || parts.tm_min != 0 || parts.tm_sec != 0) return false;
  return words.find(':') == std::string::npos && words.find('@') == std::string::npos &&
         !anyWord(words, [](const std::string &word) {
           return word == "midnight" || word == "am" || word == "pm";
         });
}

std::optional<int64_t> askDate(const std::string &words) {
  std::string output;
  // Words that are no time are no error here, so date's message would only confuse.
  Program date({kDate, "--date=" + words, "+%s"}, Program::Capture::kBoth, {"LC_ALL=C"});
  for (bool ended = false; !ended;) output += date.read(-1, &ended);
  if (date.wait() != 0) return std::nullopt;
  return strtoll(output.c_str(), nullptr, 10);
}

std::string formatted(int64_t seconds, const char *format) {
  tm parts{};
  const time_t time = seconds;
  localtime_r(&time, &parts);
  char text[64];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the three formats are below
  strftime(text, sizeof text, format, &parts);
#pragma GCC diagnostic pop
  return text;
}

}  // namespace

std::optional<int64_t> momentOf(const std::string &words, int64_t now) {
  if (words.find('\0') != std::string::npos || !looksLikeTime(words)) return std::nullopt;
  std::optional<int64_t> moment = askDate(words);
  if (!moment) return std::nullopt;
  if (*moment > now) {
    if (namesWeekday(words))
      moment = askDate(words + " 7 days ago");
    else if (isoTime(*moment).substr(0, 10) == isoTime(now).substr(0, 10))
      moment = askDate(words + " 1 day ago");
    if (!moment || *moment > now) throw Trouble(frontText(FrontText::kInTheFuture, shown(words)));
  }
  if (isWholeDay(words, *moment)) {
    // 6 hours beyond one day: into the next day even if it has 23 or 25 hours.
    const std::string day = isoTime(*moment + kDaySeconds + kDaySeconds / 4).substr(0, 10);
    if (const auto next = askDate(day)) moment = std::min(*next - 1, now);
  }
  return moment;
}

std::string localTime(int64_t seconds) {
  return formatted(seconds, "%Y-%m-%d %H:%M:%S");
}
std::string isoTime(int64_t seconds) {
  return formatted(seconds, "%Y-%m-%dT%H:%M:%S%z");
}
std::string nameTime(int64_t seconds) {
  return formatted(seconds, "%Y-%m-%d-%H%M%S");
}

}  // namespace front
