// The snapshots of the fileset by id, as the master listed them when the run started. Any process.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

using SnapshotTable = std::map<int64_t, std::string>;

// Parses the output of the command that lists snapshots: every line after the header that has a name,
// an id, six words and the fileset. Decodes octal escapes in names (a backslash and three digits).
SnapshotTable parseSnapshotList(std::string_view text);

// Returns the table of this run and reads it at the first call. If the snapshots could not be listed,
// it is empty, after a trace line.
const SnapshotTable &snapshotTable();
