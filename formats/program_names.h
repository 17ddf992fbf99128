// Where the programs of a restore are installed. They start each other by these paths.
#pragma once

inline constexpr char kProgramDir[] = "/usr/qtx/kest/bin/";
inline constexpr char kEngine[] = "/usr/qtx/kest/bin/ktapplypolicy";
