#include "front/snapshots.h"

#include "front/when.h"

namespace front {

namespace {

constexpr char kBeforeRestore[] = "-before-restore-";
constexpr char kBeforeUndo[] = "-before-undo-";

}  // namespace

const char *makerName(Maker maker) {
  static constexpr const char *kNames[] = {"plain", "snapper", "btrbk", "timeshift", "fset"};
  return kNames[static_cast<int>(maker)];
}

std::string backupEnding(Backup kind, int64_t now) {
  return (kind == Backup::kBeforeUndo ? kBeforeUndo : kBeforeRestore) + nameTime(now);
}

Backup backupKind(const std::string &name) {
  if (name.find(kBeforeUndo) != std::string::npos) return Backup::kBeforeUndo;
  if (name.find(kBeforeRestore) != std::string::npos) return Backup::kBeforeRestore;
  return Backup::kNone;
}

std::string lastComponent(const std::string &path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace front
