// Where an object belongs: the destinations recorded for objects that are moved aside, and the way from
// a path, possibly inside a temporary location, to the object's place and to its copy in the snapshot.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/result.h"
#include "run/work_file.h"

// Records `path` as the place where inode `ino` must end up (its path in the snapshot, as a path of the
// active fileset). rc of a failure is the errno.
Result fetchFile(const std::string &path, uint64_t ino);

// The recorded place, whole (a name may hold a newline). rc of a failure is the errno: ENOENT no place
// is recorded, ENODATA the record is empty.
Result readDestination(uint64_t ino, std::string *destination);

// The same for the nested fileset `id`.
Result writeFilesetDestination(const std::string &path, uint64_t id);
Result readFilesetDestination(uint64_t id, std::string *destination);

// readDestination with trace lines; `path` is used in them only. rc of a failure is -1.
Result getOrigPathBeforeRename(const std::string &path, std::string *result, uint64_t ino);

// Where the object at `path` belongs in the active fileset. The rule for temporary locations is applied
// to its own result until the path has left the work directory. Failures are traced.
Result getRealPath(const std::string &path, std::string *result);

struct SnapPlace {
  std::string path;     // in the snapshot
  uint64_t ino = 0;     // inode number there
  bool absent = false;  // after a failure: the snapshot simply holds no such object
};

// The object's copy in the snapshot, also of one that waits in a temporary location. Failures are
// traced; their rc is -1.
Result getSnapPath(const std::string &path, SnapPlace *place);

// Opens `file`, whose name is one in the bucket of `ino`, and makes the bucket where it is missing.
// Failures are traced as those of `routine`, with `path`; rc is the errno, the step 1 (no bucket) or 2
// (no file).
Result openBucketFile(const char *routine, const std::string &file, WorkFile::Mode mode,
                      const std::string &path, uint64_t ino, std::unique_ptr<WorkFile> *stream);
