// Parses the times that users write, and formats times for them.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace front {

// Returns the moment that a user's words mean, in seconds since 1970, as date(1) reads them. Returns
// nothing if they are no time; a single letter, or a bare number without exactly eight digits, is none.
// A day without a time of day ("monday", "2026-11-24") means the end of that day. A day of the week, or
// a time of day, that is still to come means the previous one. Throws Trouble for any other time in the
// future.
std::optional<int64_t> momentOf(const std::string &words, int64_t now);

// Returns local time as "2026-11-24 14:00:05".
std::string localTime(int64_t seconds);
// Returns local time as "2026-11-24T14:00:05+0100", for programs.
std::string isoTime(int64_t seconds);
// Returns local time as "2026-11-24-140005", for names.
std::string nameTime(int64_t seconds);

}  // namespace front
