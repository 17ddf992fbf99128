// fset restore and fset undo: shows what will happen, asks, takes a backup, restores and compares.
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "formats/shell_words.h"
#include "front/choice.h"
#include "front/commands.h"
#include "front/difference.h"
#include "front/difference_view.h"
#include "front/find_fileset.h"
#include "front/json.h"
#include "front/question.h"
#include "front/restore_run.h"
#include "front/run_watch.h"
#include "front/snapshot_store.h"
#include "front/text.h"
#include "front/trouble.h"
#include "front/users.h"
#include "front/when.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr size_t kMostPids = 8;  // most process IDs shown for one name

// What is known before the first change, and the outcome.
struct Run {
  const Request &request;
  const Fileset &fileset;
  const Snapshot &snapshot;
  int64_t now = 0;
  std::vector<User> users = {};
  Summary summary = {};
  std::string backup = {};  // path below the top; "" without a backup
  std::string undo = {};    // command line that undoes the restore; "" without a backup
  std::optional<int> exit_status = {};
  std::optional<uint64_t> left = {};  // number of differences after the restore
};

void say(const Run &run, const std::string &text) {
  // With --json standard output carries only the JSON object.
  fputs(text.c_str(), run.request.json ? stderr : stdout);
}

// "bash (812, 4011), postgres (912)".
std::string userText(const std::vector<User> &users) {
  std::map<std::string, std::vector<pid_t>> by_name;
  for (const User &user : users) by_name[user.name].push_back(user.pid);
  std::string text;
  for (const auto &[name, pids] : by_name) {
    text += (text.empty() ? "" : ", ") + shown(name) + " (";
    for (size_t at = 0; at < pids.size() && at < kMostPids; ++at)
      text += (at > 0 ? ", " : "") + std::to_string(pids[at]);
    text += pids.size() > kMostPids ? ", ...)" : ")";
  }
  return text;
}

void introduce(const Run &run) {
  std::string mounts;
  for (const std::string &mount : run.fileset.mounts)
    mounts += (mounts.empty() ? "" : ", ") + shown(mount);
  const Snapshot &snapshot = run.snapshot;
  std::string text = frontText(FrontText::kTheFileset, shown(run.fileset.name())) + "\n";
  text += frontText(FrontText::kTheSnapshot, shown(snapshot.name), localTime(snapshot.created),
                    ageText(run.now - snapshot.created)) +
          "\n";
  text +=
      (mounts.empty() ? frontText(FrontText::kNotMounted) : frontText(FrontText::kMountedAt, mounts)) +
      "\n";
  text += (run.users.empty() ? frontText(FrontText::kUsedByNobody)
                             : frontText(FrontText::kUsedBy, userText(run.users))) +
          "\n";
  if (!snapshot.read_only) text += frontText(FrontText::kIsWritable) + "\n";
  say(run, text + "\n" + summaryText(run.summary) + "\n");
}

void printJson(const Run &run) {
  Json object{{"command", run.request.command}, {"fileset", jsonOf(run.fileset)}};
  object["snapshot"] = jsonOf(run.snapshot);
  object["users"] = Json::array();
  for (const User &user : run.users) {
    Json one{{"pid", user.pid}};
    putName(&one, "name", user.name);
    object["users"].push_back(one);
  }
  object["summary"] = jsonOf(run.summary);
  object["backup"] = Json();
  if (!run.backup.empty()) putName(&object, "backup", run.backup);
  object["exit_status"] = run.exit_status ? Json(*run.exit_status) : Json();
  object["differences_left"] = run.left ? Json(*run.left) : Json();
  object["undo"] = Json();
  if (!run.undo.empty()) putName(&object, "undo", run.undo);
  print(object);
}

bool confirmed(const Run &run) {
  if (run.request.yes) return true;
  if (!canAsk()) throw Trouble(frontText(FrontText::kNobodyToAsk));
  const auto &text = run.request.no_backup ? FrontText::kAskNoBackup : FrontText::kAsk;
  return ask(text == FrontText::kAsk ? frontText(FrontText::kAsk) : frontText(FrontText::kAskNoBackup));
}

// Restores and compares. Returns the exit status.
int carryOut(Run *run) {
  run->exit_status = runRestore(run->fileset, run->snapshot);
  if (*run->exit_status != 0) {
    say(*run, frontText(FrontText::kRestoreFailed, *run->exit_status) + "\n");
  } else {
    Summary after;
    const Verdict verdict = compareWith(run->fileset, run->snapshot, false, {}, &after);
    if (verdict != Verdict::kTrouble) run->left = after.lines;
    if (verdict == Verdict::kEqual)
      say(*run, frontText(FrontText::kRestored, shown(run->fileset.name()), shown(run->snapshot.name)) +
                    "\n");
    else if (verdict == Verdict::kDifferent)  // on trouble the comparison has printed its reason
      say(*run, frontText(FrontText::kStillDiffers, static_cast<int64_t>(after.lines)) + "\n");
  }
  if (!run->undo.empty())
    say(*run, frontText(FrontText::kUndoWith) + "\n    " + shown(run->undo) + "\n");
  return *run->exit_status == 0 && run->left == 0u ? kDone : kNotDone;
}

}  // namespace

int restoreCommand(const Request &request) {
  const bool undo = request.command == "undo";
  const Fileset fileset = findFileset(request.place, true);
  const std::vector<Snapshot> all = fileset.store->list(fileset);
  const int64_t now = time(nullptr);
  const Snapshot &snapshot =
      undo ? chooseUndo(all, fileset) : chooseSnapshot(all, request.snapshot, fileset, now);
  Run run{.request = request, .fileset = fileset, .snapshot = snapshot, .now = now};
  // A backup taken in the middle of another restore would be of no use.
  if (RunWatch(fileset.root.get()).look())
    throw Trouble(frontText(FrontText::kRestoreRuns, shown(fileset.name())));
  // The restore refuses to run with a current directory inside the fileset.
  if (chdir("/") != 0) throw Trouble(frontText(FrontText::kNotCompared));
  const Verdict verdict = compareWith(fileset, snapshot, false, {}, &run.summary);
  // Do not ask about differences that are not all known.
  if (verdict == Verdict::kTrouble) throw Trouble(frontText(FrontText::kNotCompared));
  if (verdict == Verdict::kEqual) {
    say(run, frontText(FrontText::kEqual, shown(fileset.name()), shown(snapshot.name),
                       localTime(snapshot.created), ageText(now - snapshot.created)) +
                 "\n");
    if (request.json) printJson(run);
    return kDone;
  }
  run.users = findUsers(fileset.device_number, fileset.own_device ? "" : fileset.root_path);
  introduce(run);
  if (!confirmed(run)) {
    say(run, frontText(FrontText::kNothingDone) + "\n");
    if (request.json) printJson(run);
    return kNotDone;
  }
  if (!request.no_backup) {
    const Snapshot backup = fileset.store->takeBackup(
        fileset, undo ? Backup::kBeforeUndo : Backup::kBeforeRestore, time(nullptr));
    run.backup = backup.path;
    run.undo = undo ? "fset restore " + fileset.named + " " + shellWord(backup.word)
                    : "fset undo " + fileset.named;
    say(run, frontText(FrontText::kBackupTaken, shown(run.backup)) + "\n");
  }
  const int status = carryOut(&run);
  if (request.json) printJson(run);
  flushOutput();
  return status;
}

}  // namespace front
