// The snapshots of the fileset by id, as the master listed them at the start of the run. Any process.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

using SnapshotTable = std::map<int64_t, std::string>;

// Reads the output of the snapshot-list command: every line after the header that holds a name, an id,
// six words and the fileset. Escapes in names (a backslash and three octal digits) are undone.
SnapshotTable parseSnapshotList(std::string_view text);

// The table of this run, read at the first question; empty, after a trace line, when it could not be
// listed.
const SnapshotTable &snapshotTable();
