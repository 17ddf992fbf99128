// An open inode with its facts, which are read once at the open and handed to every step.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "kest.h"
#include "run/run_handles.h"

struct OpenObject {
  Inode file;
  // The facts at the time of the open. A step that changes an attribute which later steps read here
  // updates it.
  kest_facts_t facts{};

  explicit operator bool() const { return file != nullptr; }
  kest_ifile_t *get() const { return file.get(); }
  bool has(uint32_t bits) const { return facts.has & bits; }
  uint32_t type() const { return facts.attr.ia_mode & S_IFMT; }
};

// Opens the snapshot's inode `ino`. `path` says where the inode belongs in the active fileset. rc of a
// failure is the errno; ENOENT if the inode, or below the path, does not exist.
Result openSnapshotObject(uint64_t ino, const std::string &path, OpenObject *object);
// Opens the object at a path of the active fileset, also through links that directories left when they
// went home.
Result openAt(const std::string &path, OpenObject *object);
// Opens the active inode that is the same file as the snapshot's.
Result openSameFile(const OpenObject &snap, OpenObject *object);

// Returns true if the active object is the snapshot's inode, or if a process of this run made it in
// place of that inode (see isInodeOrReplacement in object/paths.h).
bool isInodeOrReplacement(const OpenObject &active, const OpenObject &snap);
// Returns true only in the second case: for a snapshot inode that is gone, an object with its number
// belongs to somebody else.
bool isReplacement(const OpenObject &active, const OpenObject &snap);
