// Reads the files that snapshot tools write beside their snapshots.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace front {

// The contents of snapper's info.xml.
struct SnapperInfo {
  uint64_t number = 0;
  std::string description;
};

// Parses only the elements num and description. Returns nothing if the text is no such file.
std::optional<SnapperInfo> parseSnapperInfo(std::string_view text);

// Returns the comment in Timeshift's info.json, else its tags ("O ondemand"); nothing if it is no such
// file.
std::optional<std::string> parseTimeshiftInfo(std::string_view text);

// Reads a small regular file, named by its path below the directory `dir`, without following links.
// Returns nothing if there is none.
std::optional<std::string> readInfoFile(int dir, const std::string &path);

}  // namespace front
