// What snapshot tools write beside their snapshots.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace front {

// snapper's info.xml.
struct SnapperInfo {
  uint64_t number = 0;
  std::string description;
};

// Nothing where the text is no such file. Only the elements num and description are looked at.
std::optional<SnapperInfo> parseSnapperInfo(std::string_view text);

// The comment in Timeshift's info.json, with its tags ("O ondemand"); nothing where it is no such file.
std::optional<std::string> parseTimeshiftInfo(std::string_view text);

// A small regular file named by its path below the directory `dir`, through no$
// link; nothing where there is none.
std::optional<std::string> readInfoFile(int dir, const std::string &path);

}  // namespace front
