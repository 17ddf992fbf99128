// Every text that a user sees on standard error, and a printer that checks arguments against the texts
// at compile time.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <type_traits>

enum class Message : int {
  kTooFewArguments,
  kOpenFailed,
  kFileError,
  kFlushFailed,
  kCloseFailed,
  kUsage,
  kNoHandle,
  kNoSnapId,
  kNoSnapScan,
  kNoDiffScan,
  kNoMemoryLimit,
  kNoDiffTable,
  kNoWorkDir,
  kNoRootInode,
  kNoRootPath,
  kNoBlockSize,
  kInsideFileset,
  kRemoteCaching,
  kFilesetCheckFailed,
  kNoTotalMemory,
  kNoSuspendProcess,
  kNoResumeProcess,
  kSyncFailed,
  kPrepare,
  kScan,
  kConstruct,
  kConstructFailed,
  kOperationsAdded,
  kEntriesProcessed,
  kScanComplete,
  kScanProgress,
  kEngineRetry,
  kNoCheckpointDir,
  kRestoreFiles,
  kRestoreFilesFailed,
  kDeleteClones,
  kDeleteClonesFailed,
  kMoveFiles,
  kMoveFilesFailed,
  kMovePending,
  kMovePendingFailed,
  kRestoreDeleted,
  kRestoreDeletedFailed,
  kRestoreDeletedDone,
  kMoveDirs,
  kMoveDirsFailed,
  kRestoreClones,
  kRestoreClonesFailed,
  kRestoreLinks,
  kRestoreLinksFailed,
  kCompleted,
  kCleanUp,
  kCleanUpFailed,
  kCleanUpStep,
  kPathTooLong,
  kNoSpace,
  // Texts without a number in the catalogue: conditions that stop a run before its first change, and
  // advice.
  kWouldRemoveItself,
  kCommandMissing,
  kReadOnlyFileset,
  kNumberTooSmall,
  kWritableSnapshot,
  kCommandTooLong,
  kCloneListTooDeep,
  kCloneParentGone,
  kDirsUnsettled,
  kRootAttrFailed,
  kKeptAside,
  kWorkDirKept,
  kDirKept,
  kForeignWorkDir,
  kReplaced,
  kAlreadyRunning,
  kNoRunLock,
  kStopped,
  kStoppedBefore,
  kObjectFailed,
  kMountInTheWay,
  kMountsUnknown,
  kOtherNode,
  kNodesCannot,
  kNodeSeesAnother,
  kAwaitDeadRun,
  kLockOfLostNode,
  kPathTooLongWhere,
  kCommandEnded,
  kNoRights,
  kUserNamespace,
  kFewDescriptors,
  kComparisonFailed,
  kListFailed,
  kInodeFailed,
  kRoomMade,
  kUnlinked,
  kUnlinkedFromHome,
  kUnlinkFailed,
  kProgramRuns,
  kSwapSpace,
  kNoAcls,
  kObstaclesUnknown,
  kSmallStack,
  kPassedOver,
  kNamesOutside,
  // fsetcompare.
  kCompareUsage,
  kCompareHelp,
  kCannotCompare,
  kCompareBrokeOff,
  kOutputLost,
  kCount
};

struct MessageText {
  Message id;
  int set;  // 0: a fixed text that is never looked up
  int number;
  const char *text;
};

// In the order of the enum. Several texts can share one number. Misspellings ("quite", "whoes") are
// part of the established texts, which scripts match: do not correct them.
inline constexpr MessageText kMessages[] = {
    {Message::kTooFewArguments, 1, 265, "Too few arguments specified.\n"},
    {Message::kOpenFailed, 27, 207, "Open failed"},
    {Message::kFileError, 0, 0, "%s: %s\n"},
    {Message::kFlushFailed, 0, 0, "Error flushing work file %s: %s\n"},
    {Message::kCloseFailed, 27, 269, "Error closing work file %s: %s\n"},
    {Message::kUsage, 27, 476,
     "Usage %s\n    Device { -j FileSet -o SnapShot} \n    [ -b unitSize | -m threads | -N nodes | "
     "-q quite | -x no_EA | -v Verb| -B maxFiles | -E restore_ENC_EA]\n"},
    {Message::kNoHandle, 27, 478,
     "Failed to get handle for fileset %s, snapshot %s in file system %s. %s.\n"},
    {Message::kNoSnapId, 27, 479, "Failed to get Id of snapshot %s. %s\n"},
    {Message::kNoSnapScan, 27, 481, "Error on kest_open_inodescan for the restoring snapshot. %s.\n"},
    {Message::kNoDiffScan, 27, 482, "Failed to get max inode number in active file system. %s.\n"},
    {Message::kNoMemoryLimit, 27, 483, "Failed to set max allowed memory for %s command.\n"},
    {Message::kNoDiffTable, 27, 484, "Cannot allocate enough buffer to record different items.\n"},
    {Message::kNoWorkDir, 27, 485, "Failed to create temporary directory. %s.\n"},
    {Message::kNoRootInode, 27, 486, "Failed to get root directory inode of fileset %s\n"},
    {Message::kNoRootPath, 0, 0, "Failed to get fileset root path.\n"},
    {Message::kNoBlockSize, 0, 0, "Cannot get file system block size. err %d\n"},
    {Message::kInsideFileset, 0, 0, "Cannot run command in a directory of restoring fileset.\n"},
    {Message::kRemoteCaching, 0, 0, "Cannot support OVRA fileset.\n"},
    {Message::kFilesetCheckFailed, 0, 0, "Failed to check fileset %s\n"},
    {Message::kNoTotalMemory, 27, 497, "Failed to get total memory in system.\n"},
    {Message::kNoSuspendProcess, 0, 0, "Cannot fork a new process to suspend file system.\n"},
    {Message::kNoResumeProcess, 0, 0, "Cannot fork a new process to resume file system.\n"},
    {Message::kSyncFailed, 0, 0, "Failed to sync the fileset.\n"},
    {Message::kPrepare, 27, 487, "[%s] Prepare restore ...\n"},
    {Message::kScan, 27, 487, "[%s] Scan inodes ...\n"},
    {Message::kConstruct, 27, 488, "[%s] Construct operation list ...\n"},
    {Message::kConstructFailed, 27, 489, "Failed to construct operation list.\n"},
    {Message::kOperationsAdded, 27, 509, "[%s] %lld operations have been added to list.\n"},
    {Message::kEntriesProcessed, 27, 510, "[%s] %lld directory entries have been processed.\n"},
    {Message::kScanComplete, 27, 511, "[%s] Pass %d, %lld inodes have been scanned. 100%% of total.\n"},
    {Message::kScanProgress, 27, 512, "[%s] Pass %d, %lld inodes have been scanned. %d%% of total.\n"},
    {Message::kEngineRetry, 27, 515,
     "Get an error from policy engine, retry again for the %d times.\n"},
    {Message::kNoCheckpointDir, 27, 516, "Cannot create checkpoint directory.\n"},
    {Message::kRestoreFiles, 27, 490, "[%s] Restore files ...\n"},
    {Message::kRestoreFilesFailed, 27, 491, "Failed to restore files.\n"},
    {Message::kDeleteClones, 0, 0, "[%s] Delete clone files, depth %d\n"},
    {Message::kDeleteClonesFailed, 0, 0, "Failed to delete clone files.\n"},
    {Message::kMoveFiles, 27, 492, "[%s] Move regular files ...\n"},
    {Message::kMoveFilesFailed, 27, 498, "Failed to move regular files.\n"},
    {Message::kMovePending, 27, 493, "[%s] Move pending regular files ...\n"},
    {Message::kMovePendingFailed, 27, 499, "Failed to move pending files.\n"},
    {Message::kRestoreDeleted, 0, 0, "[%s] Restore deleted files ...\n"},
    {Message::kRestoreDeletedFailed, 27, 499, "Failed to restore deleted files.\n"},
    {Message::kRestoreDeletedDone, 0, 0, "Restore deleted files done.\n"},
    {Message::kMoveDirs, 27, 494, "[%s] Move directories ...\n"},
    {Message::kMoveDirsFailed, 27, 500, "Failed to move directories.\n"},
    {Message::kRestoreClones, 0, 0, "[%s] Restore clone files, depth %d\n"},
    {Message::kRestoreClonesFailed, 0, 0, "Failed to restore clone files.\n"},
    {Message::kRestoreLinks, 0, 0, "[%s] Restore hard link files.\n"},
    {Message::kRestoreLinksFailed, 0, 0, "Failed to hard link files.\n"},
    {Message::kCompleted, 27, 495, "[%s] Restore completed.\n"},
    {Message::kCleanUp, 27, 496, "[%s] Clean up.\n"},
    {Message::kCleanUpFailed, 27, 504, "Clean up failed.\n"},
    {Message::kCleanUpStep, 0, 0, "cleanup: path %s, inode %lld, rc %d, code %d, error %d\n"},
    {Message::kPathTooLong, 27, 505, "Cannot restore a file whoes path is larger than 4096.\n"},
    {Message::kNoSpace, 27, 517,
     "There is not enough free inode or disk space in the restoring fileset.\nReserve enough free "
     "inode and disk space and try again.\n"},
    {Message::kWouldRemoveItself, 0, 0,
     "The restore needs %s, which lies in the fileset %s and is not the same in snapshot %s: it "
     "would remove or change itself. Nothing was changed.\n"},
    {Message::kCommandMissing, 0, 0, "The restore needs %s. %s. Nothing was changed.\n"},
    {Message::kReadOnlyFileset, 0, 0, "The fileset %s is read-only. Nothing was changed.\n"},
    {Message::kNumberTooSmall, 0, 0,
     "The numbers of -m, -B and -b must be at least 1. Nothing was changed.\n"},
    {Message::kWritableSnapshot, 0, 0,
     "Warning: snapshot %s is writable and can change during the restore.\n"},
    {Message::kCommandTooLong, 0, 0,
     "The command line would be longer than %d bytes and is not run: %s\n"},
    {Message::kCloneListTooDeep, 0, 0, "Clones nested deeper than %d levels cannot be restored: %s\n"},
    {Message::kCloneParentGone, 0, 0,
     "The clone parent of %s is not to be had: it lived in the snapshot with the id %lld. The file "
     "is restored without it.\n"},
    {Message::kDirsUnsettled, 0, 0, "Directory attributes did not settle in %d rounds.\n"},
    {Message::kRootAttrFailed, 0, 0,
     "Failed to restore the attributes of the fileset root %s. err %d\n"},
    {Message::kKeptAside, 0, 0, "Kept aside: %s belongs at %s (%s)\n"},
    {Message::kWorkDirKept, 0, 0,
     "The work directory %s stays: it holds %lld objects of the fileset. The same command finishes "
     "the restore.\n"},
    {Message::kDirKept, 0, 0,
     "The directory %s stays: it holds snapshots or filesets, which are left alone.\n"},
    {Message::kForeignWorkDir, 0, 0,
     "%s is not the work directory of this run, or not the owner's alone to write: nothing in it is "
     "used.\n"},
    {Message::kReplaced, 0, 0,
     "Something else stands at %s than a moment ago: somebody is at work in the fileset. It was left "
     "as it is.\n"},
    {Message::kAlreadyRunning, 0, 0,
     "Another restore of the fileset %s is running, or processes of one have not ended yet. Nothing "
     "was changed.\n"},
    {Message::kNoRunLock, 0, 0, "Cannot lock the fileset %s: %s. Nothing was changed.\n"},
    {Message::kStopped, 0, 0,
     "Stopped by a signal (%s). The fileset %s is partly restored, and the work directory %s stays: "
     "it can hold objects of the fileset. The same command finishes the restore.\n"},
    {Message::kStoppedBefore, 0, 0,
     "Stopped by a signal (%s). Nothing of the fileset %s was restored yet.\n"},
    {Message::kObjectFailed, 0, 0, "Cannot restore %s: %s.\n"},
    {Message::kMountInTheWay, 0, 0,
     "Something is mounted on %s, and the restore would have to change, move or remove what it "
     "covers. Nothing was restored. Unmount it and start again.\n"},
    {Message::kMountsUnknown, 0, 0,
     "Cannot tell what is mounted inside the fileset %s: %s. Nothing was restored.\n"},
    {Message::kOtherNode, 0, 0,
     "The node \"%s\" is not this machine: the file system is local. Nothing was changed.\n"},
    {Message::kNodesCannot, 0, 0, "Not every node can take part. Nothing was changed.\n"},
    {Message::kNodeSeesAnother, 0, 0, "This node sees another directory at %s.\n"},
    {Message::kAwaitDeadRun, 0, 0,
     "Waiting %d s for the end of what an earlier run has left on other nodes.\n"},
    {Message::kLockOfLostNode, 0, 0,
     "If it ran on a node that is lost, the lock is free once the file system has evicted the client "
     "of that node.\n"},
    {Message::kPathTooLongWhere, 0, 0, "The first one, of %lld bytes: %s\n"},
    {Message::kCommandEnded, 0, 0, "%s ended with exit status %d.\n"},
    {Message::kNoRights, 0, 0,
     "This process lacks %s. Run it as root, in a container with these capabilities. Nothing was "
     "changed.\n"},
    {Message::kUserNamespace, 0, 0,
     "This process runs in a user namespace, where it lacks CAP_SYS_ADMIN and the other capabilities "
     "that the file system asks for. Run it as root outside of it. Nothing was changed.\n"},
    {Message::kFewDescriptors, 0, 0,
     "This process may open %lld files at a time and needs %lld: raise the limit (ulimit -n). "
     "Nothing was changed.\n"},
    {Message::kComparisonFailed, 0, 0, "Cannot compare the fileset %s with its snapshot: %s.\n"},
    {Message::kListFailed, 0, 0, "Cannot work off the list %s: %s.\n"},
    {Message::kInodeFailed, 0, 0, "Cannot look at inode %lld: %s.\n"},
    {Message::kRoomMade, 0, 0,
     "There was no room for the lists of the restore: %lld files that the snapshot does not have, "
     "%lld bytes, were removed first.\n"},
    {Message::kUnlinked, 0, 0,
     "The nested fileset at %s is not in the snapshot. It was unlinked; all its data is at %s.\n"},
    {Message::kUnlinkedFromHome, 0, 0,
     "The nested fileset at %s belongs at %s, which is taken or gone. It was unlinked; all its data "
     "is at %s.\n"},
    {Message::kUnlinkFailed, 0, 0, "Failed to unlink the nested fileset at %s. exit status %d\n"},
    {Message::kProgramRuns, 0, 0,
     "%s runs and cannot be written: the restore makes it anew. What runs goes on, without a name, "
     "until it ends.\n"},
    {Message::kSwapSpace, 0, 0,
     "%s is active swap space and would have to be changed, moved or removed. Nothing was restored. "
     "Run swapoff on it and start again.\n"},
    {Message::kNoAcls, 0, 0,
     "%s has an access control list, but the file system is mounted without them (noacl). Nothing "
     "was restored. Run mount -o remount,acl %s and start again.\n"},
    {Message::kObstaclesUnknown, 0, 0,
     "Cannot tell what of the fileset %s is in use: %s. Nothing was restored.\n"},
    {Message::kSmallStack, 0, 0,
     "The stack is limited to %lld KiB; deep trees need %lld. Nothing was done. Raise the limit with "
     "ulimit -s.\n"},
    {Message::kPassedOver, 0, 0,
     "Passed over without comparing: %lld directories with everything below, in which nothing has "
     "changed since the snapshot according to ceph.dir.rctime (FSETRESTORE_RCTIME_MARGIN).\n"},
    {Message::kNamesOutside, 0, 0,
     "%s had names outside of the fileset as well. It was made again under its names in the fileset; "
     "the names outside were not touched and mean another file now.\n"},
    {Message::kCompareUsage, 0, 0, "Usage: %s Device -j FileSet -o SnapShot [--full]\n"},
    {Message::kCompareHelp, 0, 0,
     "Usage: fsetcompare Device -j FileSet -o SnapShot [--full]\nPrints a line for everything in "
     "which a fileset differs from its snapshot, and a count.\n  Device        a path on the mounted "
     "file system, or its block device\n  -j FileSet    the path of the subvolume below the top of "
     "the file system\n  -o SnapShot   the last component of the snapshot's path, or all of it\n  "
     "--full        reads both trees, byte by byte\n  --help        this text\n  --version     the "
     "version\nExit status: 0 equal; 1 different; 2 that could not be found out.\n"},
    {Message::kCannotCompare, 0, 0, "Cannot compare %s: %s\n"},
    {Message::kCompareBrokeOff, 0, 0, "The comparison broke off: %s\n"},
    {Message::kOutputLost, 0, 0, "Not every difference could be printed: %s\n"},
};

namespace message_check {

consteval bool tableInOrder() {
  int index = 0;
  for (const MessageText &entry : kMessages)
    if (static_cast<int>(entry.id) != index++) return false;
  return index == static_cast<int>(Message::kCount);
}
static_assert(tableInOrder(), "kMessages follows the enum");

// The kind of an argument: s for text, d for 32-bit and L for 64-bit integers.
template <typename T>
constexpr char argumentKind() {
  if constexpr (std::is_integral_v<T>) {
    return sizeof(T) == 8 ? 'L' : 'd';
  } else {
    static_assert(std::is_convertible_v<T, const char *> || std::same_as<T, std::string>,
                  "argument of a message");
    return 's';
  }
}

// Returns the kind of the next conversion of a default text, which uses only %s, %d and %lld, or '\0'.
constexpr char nextKind(const char *&p) {
  for (; *p; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == '%') continue;
    if (p[0] == 'l' && p[1] == 'l' && p[2] == 'd') {
      p += 3;
      return 'L';
    }
    return *p++;
  }
  return '\0';
}

template <typename... Args>
constexpr bool accepts(const char *text) {
  bool same = true;
  ((same = same && nextKind(text) == argumentKind<Args>()), ...);
  return same && nextKind(text) == '\0';
}

template <typename T>
auto plain(const T &argument) {
  if constexpr (std::same_as<T, std::string>) {
    return argument.c_str();
  } else if constexpr (std::is_integral_v<T> && sizeof(T) == 8) {
    return static_cast<long long>(argument);
  } else if constexpr (std::is_integral_v<T>) {
    return static_cast<int>(argument);
  } else {
    return static_cast<const char *>(argument);
  }
}

}  // namespace message_check

// A message whose conversions are checked at compile time against the types of its arguments.
template <typename... Args>
struct CheckedMessage {
  Message id;
  consteval CheckedMessage(Message message) : id(message) {
    if (!message_check::accepts<Args...>(kMessages[static_cast<int>(message)].text))
      throw "the arguments do not fit the text of the message";
  }
};

// Returns the format to print: the catalogue's text or the default.
const char *messageText(Message id);

// The untyped core of userMessage; call userMessage instead.
void printMessage(Message id, ...);

// Prints the message on standard error. Arguments are C strings, std::string, and 32-bit or 64-bit
// integers. Keeps errno.
template <typename... Args>
void userMessage(CheckedMessage<std::type_identity_t<std::decay_t<Args>>...> message,
                 const Args &...args) {
  printMessage(message.id, message_check::plain(args)...);
}
