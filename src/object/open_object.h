// An open inode together with what is known of it: read once, when it is opened, and handed to every
// step.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "kest.h"
#include "run/run_handles.h"

struct OpenObject {
  Inode file;
  // As they were when the inode was opened. A step that changes an attribute for which later steps look
  // here changes it here as well.
  kest_facts_t facts{};

  explicit operator bool() const { return file != nullptr; }
  kest_ifile_t *get() const { return file.get(); }
  bool has(uint32_t bits) const { return facts.has & bits; }
  uint32_t type() const { return facts.attr.ia_mode & S_IFMT; }
};

// rc of a failure is the errno, ENOENT where there is no such inode or path. `path`: where the inode belongs in the
// active fileset.
Result openSnapshotObject(uint64_t ino, const std::string &path, OpenObject *object);
// The object at a path of the active fileset, also through the links that directories leave when they
// go home.
Result openAt(const std::string &path, OpenObject *object);
// The active inode that is the same file as the snapshot's.
Result openSameFile(const OpenObject &snap, OpenObject *object);

// True when the object of the active fileset is the snapshot's inode, or a process of this run made it
// in that inode's stead (isInodeOrReplacement in object/paths.h).
bool isInodeOrReplacement(const OpenObject &active, const OpenObject &snap);
// The latter alone: for an inode that is gone, an object with its number could only be a stranger's.
bool isReplacement(const OpenObject &active, const OpenObject &snap);
