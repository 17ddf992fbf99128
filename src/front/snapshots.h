// The snapshots that a fileset can be restored to, and who made them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "front/fileset.h"

namespace front {

// The folder of this program's own snapshots, below the top of the file system. The restore leaves it
// alone where the fileset is the top-level subvolume.
inline constexpr char kBackupFolder[] = ".fset";

enum class Maker { kPlain, kSnapper, kBtrbk, kTimeshift, kFset };
// "snapper" and so on; also in JSON.
const char *makerName(Maker maker);

// What a snapshot of this program's own holds.
enum class Backup { kNone, kBeforeRestore, kBeforeUndo };

struct Snapshot {
  uint64_t id = 0;
  std::string path;  // below the top of the file system
  std::string name;  // short, and of this one alone: "#42", "home-monday", the path where that is taken
  Uuid uuid{}, parent{};
  int64_t created = 0;  // seconds since 1970
  uint64_t order = 0;   // transaction that made it: orders what was made within one second
  bool read_only = true;
  Maker maker = Maker::kPlain;
  std::optional<uint64_t> number;  // snapper's
  std::string description;
  Backup backup = Backup::kNone;
};

// All of them, the newest first. Which ones can be restored to is ktlssnapshot's answer. Throws
// Trouble.
std::vector<Snapshot> listSnapshots(const Fileset &fileset);

// The path of every subvolume of the file system, below its top. Throws Trouble.
std::vector<std::string> listFilesets(const Fileset &fileset);

// The name of a new one of this program's own.
std::string backupName(const Fileset &fileset, Backup kind, int64_t now);

}  // namespace front
