// Lists the snapshots to which a fileset can be restored, and finds who made each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "front/fileset.h"

namespace front {

// The folder for this program's own snapshots, below the top of the file system. A restore of the
// top-level subvolume leaves it alone.
inline constexpr char kBackupFolder[] = ".fset";

enum class Maker { kPlain, kSnapper, kBtrbk, kTimeshift, kFset };
// Returns "snapper" and so on, also for JSON.
const char *makerName(Maker maker);

// The state that a snapshot made by this program holds.
enum class Backup { kNone, kBeforeRestore, kBeforeUndo };

struct Snapshot {
  uint64_t id = 0;
  std::string path;  // below the top of the file system
  std::string name;  // short and unique: "#42", "home-monday"; the path if that is taken
  Uuid uuid{}, parent{};
  int64_t created = 0;  // seconds since 1970
  uint64_t order = 0;   // creating transaction; orders snapshots of one second
  bool read_only = true;
  Maker maker = Maker::kPlain;
  std::optional<uint64_t> number;  // snapper's
  std::string description;
  Backup backup = Backup::kNone;
};

// Returns all snapshots, newest first. ktlssnapshot decides which ones count. Throws Trouble.
std::vector<Snapshot> listSnapshots(const Fileset &fileset);

// Returns the path of every subvolume of the file system, below its top. Throws Trouble.
std::vector<std::string> listFilesets(const Fileset &fileset);

// Returns the name for a new backup.
std::string backupName(const Fileset &fileset, Backup kind, int64_t now);

}  // namespace front
