// Outputs of commands, message texts, policies and command lines.
#include <printf.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/octal.h"
#include "engine/options.h"
#include "filesystem/mount_table.h"
#include "formats/policy_text.h"
#include "formats/shell_words.h"
#include "fuzz/fuzz.h"
#include "messages/catalogue.h"
#include "messages/messages.h"
#include "restore/command_line.h"
#include "restore/fileset_services.h"
#include "run/settings.h"
#include "run/snapshot_table.h"

namespace fuzz {

namespace {

// Suppresses the many messages about wrong command lines.
class Silence {
 public:
  Silence() : before_(stderr) {
    static FILE *nowhere = fopen("/dev/null", "we");
    stderr = nowhere;
  }
  ~Silence() { stderr = before_; }

 private:
  FILE *before_;
};

struct Arguments {
  explicit Arguments(const std::vector<std::string> &texts) : words(texts) {
    for (std::string &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
  }
  int count() const { return static_cast<int>(words.size()); }
  std::vector<std::string> words;
  std::vector<char *> argv;
};

void snapshotList(std::string_view input) {
  const SnapshotTable table = parseSnapshotList(input);
  std::string text = "Directory\n";
  for (const auto &[id, name] : table) {
    FUZZ_CHECK(!name.empty());
    text += octalEscaped(name) + " " + std::to_string(id) + " Valid Mon Nov 2 10:00:00 2026 home\n";
  }
  FUZZ_CHECK(parseSnapshotList(text) == table);
}

void filesetListing(std::string_view input) {
  if (!isLocalFileset(input)) return;
  const size_t start = input.find('\n') + 1;
  size_t colons = 0, at = start;
  for (; colons < 18; ++at) {
    FUZZ_CHECK(at < input.size() && input[at] != '\n');
    colons += input[at] == ':';
  }
  FUZZ_CHECK(input[at] == '-');
}

// The C library's interpretation of a format decides, not ours.
void catalogueText(std::string_view input) {
  const std::vector<std::string> parts = pieces(input);
  const auto argumentsOf = [](const std::string &text) {
    std::array<int, 64> types{};
    const size_t count = parse_printf_format(text.c_str(), types.size(), types.data());
    return std::vector<int>(types.begin(),
                            types.begin() + static_cast<long>(std::min<size_t>(count, 64)));
  };
  for (const MessageText &message : kMessages) {
    FUZZ_CHECK(sameConversions(message.text, message.text));
    if (sameConversions(parts[0].c_str(), message.text))
      FUZZ_CHECK(argumentsOf(parts[0]) == argumentsOf(message.text));
  }
  if (parts.size() > 1 && sameConversions(parts[0].c_str(), parts[1].c_str()))
    FUZZ_CHECK(argumentsOf(parts[0]) == argumentsOf(parts[1]));
}

void policyText(std::string_view input) {
  ScriptRule rule;
  std::string problem;
  if (!parsePolicy(input, &rule, &problem)) {
    FUZZ_CHECK(!problem.empty());
    return;
  }
  FUZZ_CHECK(!rule.exec.empty() && rule.exec.find('\0') == std::string::npos);
}

// The engine splits what the master quotes.
void words(std::string_view input) {
  std::vector<std::string> split, again;
  std::string problem, line;
  if (!splitWords(input, &split, &problem)) {
    FUZZ_CHECK(!problem.empty());
    return;
  }
  for (const std::string &word : split) line += shellWord(word) + "  ";
  FUZZ_CHECK(splitWords(line, &again, &problem) && again == split);
}

void policyRoad(std::string_view input) {
  const std::vector<std::string> parts = pieces(input);
  std::string options;
  for (const std::string &part : parts) options += shellWord(part) + " ";
  ScriptRule rule;
  std::string problem;
  FUZZ_CHECK(parsePolicy(formatPolicy("/x" + parts[0], options), &rule, &problem));
  FUZZ_CHECK(rule.exec == "/x" + parts[0] && rule.options == parts);
}

void engineOptions(std::string_view input) {
  Arguments arguments(pieces(input));
  Options options;
  std::string problem;
  if (!parseOptions(arguments.count(), arguments.argv.data(), &options, &problem)) {
    FUZZ_CHECK(!problem.empty());
    return;
  }
  FUZZ_CHECK(options.help || options.version ||
             (!options.device.empty() && !options.policy.empty() && !options.list.empty() &&
              !options.directory.empty()));
  FUZZ_CHECK(options.max_workers >= 1 && options.batch_size >= 1);
}

void commandLine(std::string_view input) {
  std::vector<std::string> texts = pieces(input);
  texts.insert(texts.begin(), "/some/where/prog");
  Arguments arguments(texts);
  settings = {};
  Silence silence;
  const RunMode mode = readCommandLine(arguments.count(), arguments.argv.data());
  if (mode != RunMode::kRun) {
    FUZZ_CHECK(mode == RunMode::kUsage || texts[1] == "TEST");
    return;
  }
  const bool worker = texts[1] == "LIST";
  FUZZ_CHECK(worker == (settings.role == Role::kWorker) && worker == (settings.phase > 2));
  FUZZ_CHECK(worker ? !settings.shareDir.empty() : settings.shareDir.empty() && settings.pass == 0);
  FUZZ_CHECK(settings.phase == kPhaseMoveBack ||
             (!settings.filesetP.empty() && !settings.snapOldP.empty()));
  FUZZ_CHECK(settings.nodeSpec.size() < 1024 && settings.shareDir.size() < 1024);
}

void mountLine(std::string_view input) {
  const std::vector<std::string> parts = pieces(input);
  kest::Mount mount;
  const std::string &line = parts[0];
  if (kest::parseMount(line, &mount)) FUZZ_CHECK(!mount.point.empty());
  // A name in the kernel's notation.
  if (parts.size() < 2 || parts[1].empty()) return;
  std::string point = "/", escaped = "/";
  for (unsigned char c : parts[1]) {
    char code[5];
    snprintf(code, sizeof code, "\\%03o", c);
    point += static_cast<char>(c);
    escaped += strchr(" \t\n\\", c) ? std::string(code) : std::string(1, static_cast<char>(c));
  }
  FUZZ_CHECK(kest::parseMount("7 1 0:5 /a " + escaped + " rw - btrfs none rw", &mount));
  FUZZ_CHECK(mount.point == point && mount.root == "a");
}

}  // namespace

const std::vector<Target> kTextTargets = {{"snapshot_list", snapshotList},
                                          {"fileset_listing", filesetListing},
                                          {"catalogue_text", catalogueText},
                                          {"policy_text", policyText},
                                          {"words", words},
                                          {"policy_road", policyRoad},
                                          {"engine_options", engineOptions},
                                          {"command_line", commandLine},
                                          {"mount_line", mountLine}};

}  // namespace fuzz
