// Every text of fset. Each is looked up in the catalogue and, like those of messages.h, checked at
// compile time against its arguments. No text ends with a newline.
#pragma once

#include <string>
#include <type_traits>

#include "messages/messages.h"

constexpr int kFrontSet = 28;  // set number in the catalogue

// The position is the number in the catalogue, so new texts are appended.
enum class FrontText : int {
  kSeconds = 1,
  kMinutes,
  kHours,
  kDays,
  kCannotStart,
  kCannotRead,
  kCannotMountTop,
  kNoDirectory,
  kNotBtrfs,
  kNoFileset,
  kNotVisible,
  kWhichFileset,
  kInTheFuture,
  kCannotList,
  kNoSnapshots,
  kAmbiguous,
  kNoSuchSnapshot,
  kNoneSoOld,
  kNothingToUndo,
  kNoBackup,
  kOutputLost,
  kNotRoot,
  kWritable,
  kListTitle,
  kCreatedColumn,
  kAgeColumn,
  kNameColumn,
  kMakerColumn,
  kPathColumn,
  kEqual,
  kDiffTitle,
  kComesBack,
  kGoesAway,
  kChanges,
  kMovesBack,
  kAttributes,
  kObjectsColumn,
  kBytesColumn,
  kByDirectory,
  kOtherDirectories,
  kStandsAt,
  kTheFileset,
  kTheSnapshot,
  kMountedAt,
  kNotMounted,
  kUsedBy,
  kUsedByNobody,
  kIsWritable,
  kAsk,
  kAskNoBackup,
  kNobodyToAsk,
  kNothingDone,
  kNotCompared,
  kBackupTaken,
  kRestored,
  kStillDiffers,
  kRestoreFailed,
  kUndoWith,
  kPhaseRead,
  kPhaseMain,
  kPhaseCloneDelete,
  kPhaseMoveBack,
  kPhaseCreate,
  kPhaseClones,
  kPhaseLinks,
  kPhaseDirs,
  kFoundSoFar,
  kDoneOf,
  kPerSecond,
  kLeft,
  kNoRestoreRuns,
  kRestoreEnded,
  kLabelUsage,
  kLabelOptions,
  kLabelCommand,
  kLabelWords,
  kLabelOptionList,
  kLabelCommands,
  kHelpTitle,
  kHelpFooter,
  kHelpHelp,
  kHelpVersion,
  kHelpFileset,
  kHelpJson,
  kHelpPath,
  kHelpPathAndSnapshot,
  kHelpYes,
  kHelpNoBackup,
  kHelpStat,
  kHelpFull,
  kHelpList,
  kHelpDiff,
  kHelpRestore,
  kHelpUndo,
  kHelpProgress,
  kHelpSnapshot,
  kSnapshotMissing,
  kTryHelp,
  kRestoreRuns,
  kYesLetters,
  kRootOfCephFs,
  kPartOfCephFs,
  kEnd
};

struct FrontEntry {
  FrontText id;
  const char *text;
};

inline constexpr FrontEntry kFrontTexts[] = {
    {FrontText::kSeconds, "%lld s"},
    {FrontText::kMinutes, "%lld min"},
    {FrontText::kHours, "%lld h"},
    {FrontText::kDays, "%lld days"},
    {FrontText::kCannotStart, "cannot start %s: %s"},
    {FrontText::kCannotRead, "cannot read %s: %s"},
    {FrontText::kCannotMountTop, "cannot mount the top level of the file system on %s: %s"},
    {FrontText::kNoDirectory, "%s is neither a directory nor a file"},
    {FrontText::kNotBtrfs, "%s is on neither a btrfs nor a CephFS"},
    {FrontText::kNoFileset, "there is no subvolume %s"},
    {FrontText::kNotVisible, "no mount shows the fileset %s"},
    {FrontText::kWhichFileset, "a device holds many subvolumes: say which one with --fileset NAME"},
    {FrontText::kInTheFuture, "%s lies in the future"},
    {FrontText::kCannotList, "the snapshots of %s cannot be listed"},
    {FrontText::kNoSnapshots, "there are no snapshots of %s"},
    {FrontText::kAmbiguous, "%s means more than one snapshot, use a path:"},
    {FrontText::kNoSuchSnapshot,
     "%s has no snapshot %s, and that is no time either; \"fset list\" shows what there is"},
    {FrontText::kNoneSoOld, "no read-only snapshot of %s is as old as %s"},
    {FrontText::kNothingToUndo,
     "%s: there is nothing to undo, for no backup of an earlier \"fset restore\" is there"},
    {FrontText::kNoBackup,
     "no backup of the present state can be taken: %s. Nothing was changed (--no-backup goes without)"},
    {FrontText::kOutputLost, "not everything could be printed: %s"},
    {FrontText::kNotRoot, "only root may look at snapshots and restore them: use sudo"},
    {FrontText::kWritable, "(writable)"},
    {FrontText::kListTitle, "Snapshots of %s"},
    {FrontText::kCreatedColumn, "CREATED"},
    {FrontText::kAgeColumn, "AGE"},
    {FrontText::kNameColumn, "NAME"},
    {FrontText::kMakerColumn, "MADE BY"},
    {FrontText::kPathColumn, "PATH"},
    {FrontText::kEqual, "%s equals %s (%s, %s ago): there is nothing to restore"},
    {FrontText::kDiffTitle, "What a restore of %s to %s (%s, %s ago) would change:"},
    {FrontText::kComesBack, "comes back"},
    {FrontText::kGoesAway, "goes away"},
    {FrontText::kChanges, "changes"},
    {FrontText::kMovesBack, "moves back"},
    {FrontText::kAttributes, "attributes alone"},
    {FrontText::kObjectsColumn, "objects"},
    {FrontText::kBytesColumn, "in files"},
    {FrontText::kByDirectory, "by directory:"},
    {FrontText::kOtherDirectories, "(others)"},
    {FrontText::kStandsAt, "now %s"},
    {FrontText::kTheFileset, "Fileset:   %s"},
    {FrontText::kTheSnapshot, "Snapshot:  %s, %s, %s ago"},
    {FrontText::kMountedAt, "Mounted:   %s"},
    {FrontText::kNotMounted, "Mounted:   nowhere"},
    {FrontText::kUsedBy, "In use by: %s"},
    {FrontText::kUsedByNobody, "In use by: nobody"},
    {FrontText::kIsWritable,
     "Careful:   the snapshot is writable, and may have changed since it was made"},
    {FrontText::kAsk, "Restore it? The present state is kept as a snapshot. [y/N]"},
    {FrontText::kAskNoBackup, "Restore it? The present state is LOST (--no-backup). [y/N]"},
    {FrontText::kNobodyToAsk,
     "there is no terminal to ask on. Nothing was changed (--yes goes without a question)"},
    {FrontText::kNothingDone, "Nothing was changed."},
    {FrontText::kNotCompared,
     "what a restore would change could not be found out. Nothing was changed"},
    {FrontText::kBackupTaken, "The present state is kept as %s"},
    {FrontText::kRestored, "%s equals %s again."},
    {FrontText::kStillDiffers,
     "The restore is done, but %lld differences are left or new: is somebody at work there?"},
    {FrontText::kRestoreFailed,
     "The restore failed (exit status %d); the lines above say why. Put that right and run the same "
     "command again."},
    {FrontText::kUndoWith, "To go back to the state before:"},
    {FrontText::kPhaseRead, "reading the trees"},
    {FrontText::kPhaseMain, "changing and removing"},
    {FrontText::kPhaseCloneDelete, "removing clones"},
    {FrontText::kPhaseMoveBack, "moving files home"},
    {FrontText::kPhaseCreate, "bringing back deleted files"},
    {FrontText::kPhaseClones, "making clones"},
    {FrontText::kPhaseLinks, "putting hard links right"},
    {FrontText::kPhaseDirs, "finishing directories"},
    {FrontText::kFoundSoFar, "%lld steps found"},
    {FrontText::kDoneOf, "%lld of %lld (%d%%)"},
    {FrontText::kPerSecond, "%lld/s"},
    {FrontText::kLeft, "%s left"},
    {FrontText::kNoRestoreRuns, "no restore of %s is running"},
    {FrontText::kRestoreEnded, "the restore has ended"},
    {FrontText::kLabelUsage, "Usage"},
    {FrontText::kLabelOptions, "OPTIONS"},
    {FrontText::kLabelCommand, "COMMAND"},
    {FrontText::kLabelWords, "Words"},
    {FrontText::kLabelOptionList, "Options"},
    {FrontText::kLabelCommands, "Commands"},
    {FrontText::kHelpTitle,
     "Looks at the snapshots of a btrfs subvolume or a CephFS directory, and puts it back to one of "
     "them in place."},
    {FrontText::kHelpFooter,
     "When something is wrong:\n"
     "  fset list                 what can I go back to?\n"
     "  fset diff yesterday       what would change?\n"
     "  fset restore yesterday    do it; the present state is kept\n"
     "  fset undo                 it was wrong: back again"},
    {FrontText::kHelpHelp, "this text"},
    {FrontText::kHelpVersion, "the version"},
    {FrontText::kHelpFileset,
     "the fileset (a subvolume, or a directory of a CephFS), by its path below the top of the file system of PATH"},
    {FrontText::kHelpJson, "one JSON object on standard output (fset(8))"},
    {FrontText::kHelpPath, "anything in the fileset; without it, where you stand"},
    {FrontText::kHelpPathAndSnapshot,
     "[PATH] SNAPSHOT: anything in the fileset (where you stand), and what to go back to"},
    {FrontText::kHelpYes, "do not ask"},
    {FrontText::kHelpNoBackup, "keep no snapshot of the present state"},
    {FrontText::kHelpStat, "the summary alone"},
    {FrontText::kHelpFull, "read both trees, byte by byte"},
    {FrontText::kHelpList, "the snapshots that the fileset can be restored to"},
    {FrontText::kHelpDiff, "what a restore would change"},
    {FrontText::kHelpRestore, "put the fileset back to a snapshot"},
    {FrontText::kHelpUndo, "back to the state before the last \"fset restore\""},
    {FrontText::kHelpProgress, "how far a running restore is"},
    {FrontText::kHelpSnapshot,
     "SNAPSHOT is a name or path of \"fset list\", \"#42\" of snapper, \"latest\", or a time such as\n"
     "yesterday, \"monday 14:00\" or 2026-11-24: the newest snapshot at or before it.\n"
     "More in fset(8)."},
    {FrontText::kSnapshotMissing,
     "which SNAPSHOT? (a shell takes #42 for a comment: write '#42' or 42)"},
    {FrontText::kTryHelp, "\"fset --help\" shows what there is."},
    {FrontText::kRestoreRuns,
     "a restore of %s is running: \"fset progress\" shows it. Nothing was changed"},
    {FrontText::kYesLetters, "yY"},  // a yes begins with one of these
    {FrontText::kRootOfCephFs, "%s is the root of a mount; only a directory below it can be restored"},
    {FrontText::kPartOfCephFs,
     "%s does not show the root of its CephFS: name the directory with --fileset NAME, by its path "
     "below that root"},
};

namespace message_check {

consteval bool frontTextsInOrder() {
  int number = 1;
  for (const FrontEntry &entry : kFrontTexts)
    if (static_cast<int>(entry.id) != number++) return false;
  return number == static_cast<int>(FrontText::kEnd);
}
static_assert(frontTextsInOrder(), "kFrontTexts follows the enum");

}  // namespace message_check

template <typename... Args>
struct CheckedFrontText {
  FrontText id;
  consteval CheckedFrontText(FrontText text) : id(text) {
    if (!message_check::accepts<Args...>(kFrontTexts[static_cast<int>(text) - 1].text))
      throw "the arguments do not fit the text";
  }
};

// The untyped core of frontText; call frontText instead.
std::string formatFrontText(FrontText id, ...);

// Returns the text in the user's language, formatted. Takes the arguments of userMessage. Keeps errno.
template <typename... Args>
std::string frontText(CheckedFrontText<std::type_identity_t<std::decay_t<Args>>...> text,
                      const Args &...args) {
  return formatFrontText(text.id, message_check::plain(args)...);
}
