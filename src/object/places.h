// Finds the place where an object belongs and its copy in the snapshot, starting from a path that may
// lie in a temporary location. Records and reads the destinations of objects that are moved aside.
//
// What a caller wants to know       and the routine to ask
// the place of a moved inode        readDestination, by number; it may lie in a temporary location
// the place in the active fileset   getRealPath, by path; it follows destinations to the end
// the copy in the snapshot          getSnapPath, by path
// a directory in phase 6            settledPath (worker/dir_ops): where it is now, home or waiting
// the path that a user knows        formerPath (plan/walk_messages): before this run moved anything
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/result.h"
#include "run/work_file.h"

// Records `path` as the place where inode `ino` must end up: its path in the snapshot, written as a
// path of the active fileset. rc of a failure is the errno.
Result fetchFile(const std::string &path, uint64_t ino);

// Reads the recorded path, which can contain a newline. rc of a failure is the errno; ENOENT: no path
// is recorded, ENODATA: the record is empty.
Result readDestination(uint64_t ino, std::string *destination);

// The same for the nested fileset `id`.
Result writeFilesetDestination(const std::string &path, uint64_t id);
Result readFilesetDestination(uint64_t id, std::string *destination);

// Finds the path at which the object at `path` belongs in the active fileset. A destination can lie in
// another temporary location, so the rule is applied until the path lies outside the work directory.
// Failures are traced.
Result getRealPath(const std::string &path, std::string *result);

struct SnapPlace {
  std::string path;     // path in the snapshot
  uint64_t ino = 0;     // inode number in the snapshot
  bool absent = false;  // after a failure: the snapshot holds no such object
};

// Finds the snapshot copy of the object at `path`, which may wait in a temporary location. Failures are
// traced; rc is -1.
Result getSnapPath(const std::string &path, SnapPlace *place);

// Opens `file`, a name in the bucket of `ino`, and creates the bucket if it is missing. Traces failures
// in the name of `routine`, with `path`. rc is the errno; the code is 1 without a bucket, 2 without a
// file.
Result openBucketFile(const char *routine, const std::string &file, WorkFile::Mode mode,
                      const std::string &path, uint64_t ino, std::unique_ptr<WorkFile> *stream);
