#include "policy/command_lines.h"

#include <cerrno>

#include "formats/program_names.h"
#include "formats/work_names.h"
#include "messages/messages.h"
#include "run/node.h"
#include "run/shell_command.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

constexpr char kExec[] = "exec ";
// The most bytes of these command lines and options, including terminators.
constexpr size_t kNestedCommandMax = 4096;  // of an engine run for one directory, or a node question
constexpr size_t kEngineOptionsMax = 320;
constexpr size_t kWorkerOptionsMax = 2048;
constexpr size_t kNestedPrefixMax = 1600;  // most bytes before the engine's options for one directory

// The options that the engine gets in every phase.
std::string engineOptions(int32_t batch_size = settings.maxFiles) {
  return "-m " + std::to_string(settings.threads) + " -B " + std::to_string(batch_size) + " -N " +
         shellWord(settings.nodeSpec);
}

// The options that name the trees and the work directory to a worker.
std::string treeWords(const char *before_work_dir) {
  return "-d " + shellWord(settings.deviceP) + " -j " + shellWord(settings.filesetP) + " -o " +
         shellWord(settings.snapOldP) + before_work_dir + "-t " + shellWord(settings.shareDir);
}

// The switches of this process that its workers inherit.
std::string switches() {
  return std::string(settings.noXAttr ? "-x" : "") + " " + (settings.Debug ? "" : "-q") + " " +
         (settings.Verb ? "-v" : "") + " " + (settings.encryptEA ? "-E" : "");
}

// The options that the workers of every phase get.
std::string commonWorkerOptions() {
  return treeWords(" ") + " -B " + std::to_string(settings.maxFiles) + " " + switches();
}

std::string outputWords() {
  return settings.Debug ? "" : ">/dev/null";
}

std::string phaseCommand(Phase phase, const std::string &list_name,
                         int32_t batch_size = settings.maxFiles) {
  const std::string dir = shellWord(settings.shareDir);
  return std::string(kEngine) + " " + shellWord(settings.deviceP) + " -P " + dir + "/" + kPolicy +
         " -g " + dir + (phase == kPhaseMain ? " -r " : "  -r ") + dir + "/" + list_name + " " +
         engineOptions(batch_size) + " " + outputWords();
}

// -D in phase 6: it only sets attributes, and the lists below the directories ran when those were made.
std::string phaseWorkerOptions(Phase phase) {
  return commonWorkerOptions() + " -p " + std::to_string(phase) + " -s " +
         std::to_string(settings.pass) + (phase == kPhaseDirs ? " -D" : "");
}

}  // namespace

std::string engineCommand(const EngineRun &run) {
  return kExec + run.command;
}

Result callerOptions(const EngineRun &run, std::string *options) {
  *options = run.options + " -c " + std::to_string(callerNumber());
  return errnoResult(options->size() < kWorkerOptionsMax ? 0 : E2BIG);
}

Result nodeQuestion(const std::string &token, const std::string &answer, std::string *command) {
  // The question does not begin with exec: if a signal kills the program, the shell still returns an
  // exit status. Otherwise ssh would return the one that also means a lost node.
  std::string question = shellWord(settings.exe) + " TEST";
  for (const std::string &word :
       {settings.shareDir, token, settings.deviceP, settings.filesetP, settings.snapOldP})
    question += " " + shellWord(word);
  *command = std::string(kExec) + kEngine + " " + shellWord(settings.deviceP) + " -N " +
             shellWord(settings.nodeSpec) + " --answer " + shellWord(answer) + " --ask " +
             shellWord(question);
  return checkCommand(*command, kNestedCommandMax);
}

Result checkCommandLines() {
  const std::string options = engineOptions();
  traceLog("Main: pcOpt %s\n", options.c_str());
  traceLog("Main: commExeOpt  %s\n", commonWorkerOptions().c_str());
  if (Result r = checkCommand(options, kEngineOptionsMax); !r) return r;
  // This list has the longest name of all.
  if (Result r = checkCommand(kExec + phaseCommand(kPhasePending, kRegPendingMvList)); !r) return r;
  // Leave room for the pass number and the process ID, which are not known yet.
  const std::string room(32, ' ');
  return checkCommand(phaseWorkerOptions(kPhaseDirs) + room, kWorkerOptionsMax);
}

namespace {

Result listRun(Phase phase, const std::string &list_name, int32_t batch_size, EngineRun *run) {
  *run = {phaseCommand(phase, list_name, batch_size), phaseWorkerOptions(phase), workPath(list_name),
          workPath(kPolicy), settings.shareDir};
  if (Result r = checkCommand(engineCommand(*run)); !r) return r;
  if (Result r = checkCommand(run->options, kWorkerOptionsMax); !r) return r;
  return errnoResult(run->list.empty() ? E2BIG : 0);
}

}  // namespace

Result phaseRun(Phase phase, const std::string &list_name, EngineRun *run) {
  return listRun(phase, list_name, settings.maxFiles, run);
}

Result scanRun(EngineRun *run) {
  return listRun(kPhaseScan, kScanList, 1, run);
}

Result nestedRun(const std::string &set, const std::string &list, EngineRun *run) {
  const std::string policy = dirSetPolicyName(set);
  const std::string prefix =
      std::string(kEngine) + " " + shellWord(settings.deviceP) + " -P " + shellWord(policy);
  *run = {prefix + " -g " + shellWord(set) + " -r " + shellWord(list) + " -m 32 -N " +
              shellWord(settings.nodeSpec) + " " + outputWords(),
          treeWords("  ") + " -s " + std::to_string(settings.pass) + " -p " +
              std::to_string(kPhaseMain) + " -D " + switches(),
          list, policy, set};
  if (prefix.size() < kNestedPrefixMax && run->options.size() < kWorkerOptionsMax)
    return checkCommand(engineCommand(*run), kNestedCommandMax);
  // Any of the three can be too long; the command line shows which directory it is about.
  userMessage(Message::kCommandTooLong, static_cast<int>(kNestedCommandMax), engineCommand(*run));
  return errnoResult(E2BIG);
}
