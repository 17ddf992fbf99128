// Names in the work directory: the only place that spells them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

inline constexpr char kOpList[] = "opList";
inline constexpr char kOpListMove[] = "opList.move";
inline constexpr char kOpListCopy[] = "opList.copy";
inline constexpr char kOpListDelta[] = "opList.copy.delta";
inline constexpr char kRegMoveList[] = "regMoveList";
inline constexpr char kRegPendingMvList[] = "regPendingMvList";
inline constexpr char kDirNew[] = "dir.new";
inline constexpr char kDirMoveList[] = "dirMoveList";
inline constexpr char kLinkIno[] = "link.ino";
inline constexpr char kPolicy[] = "policy";
inline constexpr char kCheckpointDir[] = "checkpoint";
inline constexpr char kErrorLog[] = "ErrorLog";
inline constexpr char kFatalError[] = "fatal.error";
inline constexpr char kSnapList[] = "snapList";
inline constexpr char kDiffTable[] = "diffTable";
constexpr int kWorkDirMode = 0x755;  // hexadecimal, as the lists of older runs have it

// Path of `name` in the work directory; empty, with path2long set, when it would be too long. What is a
// whole path already is returned as it is.
std::string workPath(std::string_view name);

// True when the path lies below the work directory.
bool inWorkDir(std::string_view path);

// Creates a directory of the work directory with kWorkDirMode; one that exists counts as created.
// 0 or an errno.
int makeWorkDirectory(const std::string &path);

// Every function below but checkpointPrefix returns a whole path, empty where it would be too long; the
// constants above are names for workPath.
std::string bucketDir(uint64_t ino);            // MOVE_<n>, n = ino AND 0x3FF
std::string tempLocation(uint64_t ino);         // MOVE_<n>/_<ino>: where a moved-away object waits
std::string cloneDeleteLocation(uint64_t ino);  // MOVE_<n>/_<ino>.delclone
std::string destinationFile(uint64_t ino);      // MOVE_<n>/<ino>_: where it must end up
std::string newParentFile(uint64_t ino);        // MOVE_<n>/<ino>.clone.newParent

// DelDir_<ino> (deleted) or NewDir_<ino>: the lists of one top directory.
std::string dirSet(uint64_t ino, bool deleted);
// <set>/<depth>, and <set>/<depth>.move.
std::string dirSetList(uint64_t ino, bool deleted, int depth);
std::string dirSetMoveList(uint64_t ino, bool deleted, int depth);

std::string cloneList(int depth);        // clone.<d>
std::string cloneDeleteList(int depth);  // clone.del.<d>

// checkpoint/checkpoint.<callerPid>.<host>.<pid>; and "checkpoint.<callerPid>.", with which the names
// begin in the checkpoint directory that belong to a caller.
std::string checkpointFile(int32_t caller_pid, const std::string &host, int32_t pid);
std::string checkpointPrefix(int32_t caller_pid);
