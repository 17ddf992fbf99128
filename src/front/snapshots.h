// A snapshot to which a fileset can be restored.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "front/fileset.h"

namespace front {

enum class Maker { kPlain, kSnapper, kBtrbk, kTimeshift, kFset };
// Returns "snapper" and so on, also for JSON.
const char *makerName(Maker maker);

// The state that a snapshot made by this program holds.
enum class Backup { kNone, kBeforeRestore, kBeforeUndo };

struct Snapshot {
  uint64_t id = 0;
  std::string path;  // below the top of the file system
  std::string name;  // short and unique: "#42", "home-monday"; the path if that is taken
  std::string word;  // the commands' SnapShot; fset takes it, too
  std::string tree;  // path of the root directory for this process; "" if it sees none
  Uuid uuid{}, parent{};
  int64_t created = 0;  // seconds since 1970
  uint64_t order = 0;   // orders snapshots of one second
  bool read_only = true;
  Maker maker = Maker::kPlain;
  std::optional<uint64_t> number;  // snapper's
  std::string description;
  Backup backup = Backup::kNone;
};

// Returns the end of the name of a backup: "-before-restore-2026-11-26-022007".
std::string backupEnding(Backup kind, int64_t now);
// Returns the kind of backup that has such a name. Whatever follows the words "-before-restore-"
// counts.
Backup backupKind(const std::string &name);

// Returns what follows the last slash.
std::string lastComponent(const std::string &path);

}  // namespace front
