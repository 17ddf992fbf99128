// Times: what people say, and what is shown to them.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace front {

// The moment that a user's words mean, as date(1) reads them, in seconds since 1970; nothing where they
// are no time, as a single letter or a bare number of other than eight digits is not. A day without a
// time of day ("monday", "2026-11-24") means the end of that day. A day of the week, or a time of day,
// that is still to come means the last one. Throws Trouble for what lies in the future all the same.
std::optional<int64_t> momentOf(const std::string &words, int64_t now);

// "2026-11-24 14:00:05", local time.
std::string localTime(int64_t seconds);
// "2026-11-24T14:00:05+0100", for programs.
std::string isoTime(int64_t seconds);
// "2026-11-24-140005", for names.
std::string nameTime(int64_t seconds);

}  // namespace front
