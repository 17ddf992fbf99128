// Names in the work directory: the only place that spells and reads them. All are relative to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The work directory itself, in the root of the fileset: RestoreTemp<number>.
std::string workDirName(int number);

inline constexpr char kOpList[] = "opList";
inline constexpr char kOpListMove[] = "opList.move";
inline constexpr char kOpListCopy[] = "opList.copy";
inline constexpr char kRegMoveList[] = "regMoveList";
inline constexpr char kRegPendingMvList[] = "regPendingMvList";
inline constexpr char kDirNew[] = "dir.new";
inline constexpr char kDirLast[] = "dir.last";  // dir.new as one round of phase 6 works it off
inline constexpr char kDirMoveList[] = "dirMoveList";
inline constexpr char kLinkIno[] = "link.ino";
inline constexpr char kPolicy[] = "policy";
inline constexpr char kCheckpointDir[] = "checkpoint";
inline constexpr char kErrorLog[] = "ErrorLog";
inline constexpr char kFatalError[] = "fatal.error";
inline constexpr char kSnapList[] = "snapList";
inline constexpr char kDiffTable[] = "diffTable";
inline constexpr char kRoom[] = "room";

// A list that is being rewritten without its done records, and the list as it was.
std::string rewrittenList(std::string_view list);  // <list>.tmp
std::string originalList(std::string_view list);   // <list>.orig

// ---- MOVE_<n>: what was moved aside, n = ino AND 0x3FF
std::string bucketName(uint64_t ino);
std::string tempLocationName(uint64_t ino);         // MOVE_<n>/_<ino>
std::string cloneDeleteLocationName(uint64_t ino);  // MOVE_<n>/_<ino>.delclone
std::string destinationName(uint64_t ino);          // MOVE_<n>/<ino>_
std::string newParentName(uint64_t ino);            // MOVE_<n>/<ino>.clone.newParent
// The same for a nested fileset, by its number: where it waits, and where it belongs.
std::string filesetLocationName(uint64_t id);     // MOVE_<n>/_<id>.fileset
std::string filesetDestinationName(uint64_t id);  // MOVE_<n>/<id>_.fileset

bool isBucketName(std::string_view name);
// The inode number of an object moved aside, from its name in a bucket ("_<ino>" and what follows).
std::optional<uint64_t> parseAsideName(std::string_view name);
// The inode number of "<ino>.clone.newParent".
std::optional<uint64_t> parseNewParentName(std::string_view name);

// A path below an object that was moved aside.
struct TempPlace {
  uint64_t ino = 0;         // of the moved object
  std::string_view inside;  // path below it; empty: the object itself
};
// Takes a path relative to the work directory apart; false when it lies in no temporary location.
// `place` refers to `path`.
bool parseTempPlace(std::string_view path, TempPlace *place);

// ---- DelDir_<ino>, NewDir_<ino>: the lists of one top directory, by depth
std::string dirSetName(uint64_t ino, bool deleted);
std::string dirSetListName(uint64_t ino, bool deleted, int depth);      // <set>/<depth>
std::string dirSetMoveListName(uint64_t ino, bool deleted, int depth);  // <set>/<depth>.move
// The depth of a list or move list, from its name in the set.
std::optional<int> parseDirSetList(std::string_view name);

// ---- clone lists by depth
std::string cloneListName(int depth);        // clone.<d>
std::string cloneDeleteListName(int depth);  // clone.del.<d>
std::optional<int> parseCloneList(std::string_view name);
std::optional<int> parseCloneDeleteList(std::string_view name);

// ---- checkpoint/checkpoint.<caller>.<host>.<pid>
std::string checkpointName(int32_t caller_pid, const std::string &host, int32_t pid);
// With which the names of one caller's files begin in the checkpoint directory.
std::string checkpointPrefix(int32_t caller_pid);

// ktapplypolicy.<pid>.<number>: a batch on its way to a worker. Where that name is taken, attempts from
// 1 on append .<attempt>.
std::string batchName(int32_t engine_pid, uint64_t number, int attempt);
