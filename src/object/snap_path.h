// From a path, possibly inside a temporary location, to where the object belongs and to its snapshot
// copy.
#pragma once

#include <cstdint>
#include <string>

// Where the object at `path` belongs in the active fileset. The rule for temporary locations is applied
// to its own result until the path has left the work directory. 0 or an error code, after a trace line.
int getRealPath(const std::string &path, std::string *result);

// The path of the object's copy in the snapshot and its inode number. `useWorkDir` enables the rule for
// temporary locations. 0, or -1 after a trace line; *absent (may be null) is set when the paths could
// be resolved and the snapshot simply holds no such object.
int getSnapPath(const std::string &path, bool useWorkDir, std::string *result, uint64_t *snapIno,
                bool *absent = nullptr);
