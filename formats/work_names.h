// The names in the work directory, and the only code that builds and parses them. All are relative to
// it.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Returns the name of the work directory in the root of the fileset: RestoreTemp<number>.
std::string workDirName(int number);

inline constexpr char kOpList[] = "opList";
inline constexpr char kOpListMove[] = "opList.move";
inline constexpr char kOpListCopy[] = "opList.copy";
inline constexpr char kRegMoveList[] = "regMoveList";
inline constexpr char kRegPendingMvList[] = "regPendingMvList";
inline constexpr char kDirNew[] = "dir.new";
inline constexpr char kDirLast[] = "dir.last";  // dir.new, as one round of phase 6 performs it
inline constexpr char kDirMoveList[] = "dirMoveList";
inline constexpr char kLinkIno[] = "link.ino";
inline constexpr char kPolicy[] = "policy";
inline constexpr char kCheckpointDir[] = "checkpoint";
inline constexpr char kErrorLog[] = "ErrorLog";
inline constexpr char kFatalError[] = "fatal.error";
inline constexpr char kSnapList[] = "snapList";
inline constexpr char kDiffTable[] = "diffTable";
inline constexpr char kRoom[] = "room";

inline constexpr char kNodeToken[] = "node.token";  // shows other nodes that they see this directory

// The scan of a run of several nodes. A round has a file of directories, divided into groups, and a
// part for each group that has been compared. A part is written under another name and then gets its
// own.
inline constexpr char kScanDir[] = "scan";
inline constexpr char kScanList[] = "scan.list";
std::string scanRoundName(int round);                                     // scan/<round>
std::string scanPartName(const std::string &round_file, uint64_t group);  // <round file>.<group>
std::string unfinishedPartName(const std::string &part, const std::string &host, int32_t pid);

// Parses the number of RestoreTemp<number>.
std::optional<int> parseWorkDirName(std::string_view name);

// Exists while an engine run on several nodes is in progress. A killed engine does not remove it.
inline constexpr char kNodeRun[] = "node.run";
// Names the nodes that engine runs on several nodes have lost, one per line.
inline constexpr char kLostNodes[] = "lost.nodes";

// Environment variables for the processes of a run. The first holds the identity of the work directory,
// "<device>:<inode>"; the processes accept no other directory. The second holds the number of the node
// on which they run; it is not set on the master's node.
inline constexpr char kWorkDirectoryVariable[] = "FSETRESTORE_WORK_DIRECTORY";
inline constexpr char kNodeVariable[] = "FSETRESTORE_NODE";
// The identity of the directory for the files of an engine run, which is the only one that the engine
// accepts.
inline constexpr char kEngineDirectoryVariable[] = "KT_DIRECTORY";
// Returns "<device>:<inode>" of a directory, the value of the first and the last of these variables.
std::string directoryIdentity(const struct stat &st);

// A file that several processes of one node append to. Two nodes cannot append to one file at the same
// time: each writes where it believes the end to be. So every node but the master's (0) has its own.
std::string nodeFileName(std::string_view file, int node);  // <file>@<node>
// Returns true if the name is nodeFileName(file, <any node>).
bool isNodeFile(std::string_view name, std::string_view file);

// Names for a list that is being rewritten without its done records, and for the original list.
std::string rewrittenList(std::string_view list);  // <list>.tmp
std::string originalList(std::string_view list);   // <list>.orig

// ---- MOVE_<n>, the buckets: objects that were moved aside; n = ino AND 0x3FF
std::string bucketName(uint64_t ino);
std::string tempLocationName(uint64_t ino);         // MOVE_<n>/_<ino>
std::string cloneDeleteLocationName(uint64_t ino);  // MOVE_<n>/_<ino>.delclone
std::string destinationName(uint64_t ino);          // MOVE_<n>/<ino>_
std::string newParentName(uint64_t ino);            // MOVE_<n>/<ino>.clone.newParent
// The same for a nested fileset, by its id: where it waits, and the file that holds its destination.
std::string filesetLocationName(uint64_t id);     // MOVE_<n>/_<id>.fileset
std::string filesetDestinationName(uint64_t id);  // MOVE_<n>/<id>_.fileset

bool isBucketName(std::string_view name);
// Returns true if the name in a bucket begins like that of a temporary location, perhaps without a
// number.
bool isAsideName(std::string_view name);
// Parses the inode number in the name of an object in a bucket: "_<ino>", perhaps followed by more.
std::optional<uint64_t> parseAsideName(std::string_view name);
// Parses the inode number of "<ino>.clone.newParent".
std::optional<uint64_t> parseNewParentName(std::string_view name);

// An object that was moved aside, or a path below it.
struct TempPlace {
  uint64_t ino = 0;         // inode number of the moved object
  std::string_view inside;  // path below it; "" for the object itself
};
// Parses a path relative to the work directory. Returns false if it lies in no temporary location.
// `place` points into `path`.
bool parseTempPlace(std::string_view path, TempPlace *place);

// ---- DelDir_<ino>, NewDir_<ino>, the sets: lists of one top directory, by depth
std::string dirSetName(uint64_t ino, bool deleted);
std::string dirSetListName(uint64_t ino, bool deleted, int depth);      // <set>/<depth>
std::string dirSetMoveListName(uint64_t ino, bool deleted, int depth);  // <set>/<depth>.move
std::string dirSetPolicyName(const std::string &set);                   // <set>/policy
bool isDirSetName(std::string_view name);
// Parses the depth from the name of a list or move list in a set.
std::optional<int> parseDirSetList(std::string_view name);

// ---- clone lists by depth
std::string cloneListName(int depth);        // clone.<d>
std::string cloneDeleteListName(int depth);  // clone.del.<d>
std::optional<int> parseCloneList(std::string_view name);
std::optional<int> parseCloneDeleteList(std::string_view name);

// ---- checkpoint/checkpoint.<caller>.<host>.<pid>
std::string checkpointName(int32_t caller_pid, const std::string &host, int32_t pid);
// The start of the names of one caller's files in the checkpoint directory.
std::string checkpointPrefix(int32_t caller_pid);

// Names a batch on its way to a worker: ktapplypolicy.<pid>.<number>. If that name is taken, attempts
// from 1 on append ".<attempt>".
std::string batchName(int32_t engine_pid, uint64_t number, int attempt);
