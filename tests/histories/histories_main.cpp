// histories: restores after random histories and compares both trees by reading them again.
// Runs in the private namespace: tools/private-namespace BUILD/bin BUILD/tests/histories --help
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>

#include "histories/generator.h"
#include "histories/runner.h"
#include "support/tree_fingerprint.h"

using namespace histories;

namespace {

const char kUsage[] =
    "usage: histories [options]\n"
    "  --profile NAME     data, attrs, trees, names, links, flags, clones or all (default)\n"
    "  --seed N           the first seed (1)\n"
    "  --count N          how many histories (100)\n"
    "  --seconds N        stop after this time, however many are left\n"
    "  --stop N           stop after N failures\n"
    "  --program PATH     the restore program\n"
    "  --passes N,N...    DIFF_ITEM_LIMIT, one of them at random (for a program that knows it)\n"
    "  --kill-before      first kill one or two restores at random moments\n"
    "  --lose-workers     kill workers at random calls, up to three times a run\n"
    "  --compare          fsetcompare must find a difference exactly where the trees differ\n"
    "  --shrink           reduce failing histories to few operations\n"
    "  --replay FILE      restore after the history in FILE, as printed by a failure\n";

struct Campaign {
  uint64_t seed = 1, count = 100, stopAfter = UINT64_MAX;
  double seconds = 1e9;
  bool shrink = false;
  std::string replayFile;
};

double elapsed() {
  static const auto start = std::chrono::steady_clock::now();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::vector<int> numbers(const std::string &text) {
  std::vector<int> list;
  std::istringstream in(text);
  for (std::string word; std::getline(in, word, ',');) list.push_back(std::stoi(word));
  return list;
}

// Returns false if the command line is wrong.
bool readOptions(const std::vector<std::string> &words, Settings *settings, Campaign *campaign) {
  const std::map<std::string, std::function<void()>> switches = {
      {"--kill-before", [&] { settings->killBefore = true; }},
      {"--lose-workers", [&] { settings->loseWorkers = true; }},
      {"--compare", [&] { settings->compare = true; }},
      {"--shrink", [&] { campaign->shrink = true; }}};
  const std::map<std::string, std::function<void(const std::string &)>> values = {
      {"--profile", [&](const std::string &text) { settings->profile = text; }},
      {"--seed", [&](const std::string &text) { campaign->seed = std::stoull(text); }},
      {"--count", [&](const std::string &text) { campaign->count = std::stoull(text); }},
      {"--seconds", [&](const std::string &text) { campaign->seconds = std::stod(text); }},
      {"--stop", [&](const std::string &text) { campaign->stopAfter = std::stoull(text); }},
      {"--program", [&](const std::string &text) { settings->program = text; }},
      {"--passes", [&](const std::string &text) { settings->passes = numbers(text); }},
      {"--replay", [&](const std::string &text) { campaign->replayFile = text; }}};
  for (size_t i = 0; i < words.size(); ++i) {
    if (switches.count(words[i])) {
      switches.at(words[i])();
    } else {
      if (!values.count(words[i]) || i + 1 == words.size()) return false;
      values.at(words[i])(words[i + 1]);
      ++i;
    }
  }
  const std::vector<std::string> known = Generator::profiles();
  return std::find(known.begin(), known.end(), settings->profile) != known.end();
}

void report(const Outcome &outcome, uint64_t seed, const char *title) {
  printf("%s, seed %llu\n%s--- differences (%zu)\n%s--- restore: %s\n", title,
         static_cast<unsigned long long>(seed), print(outcome.history).c_str(), outcome.problems.size(),
         testsupport::joined(outcome.problems).c_str(), outcome.runText.c_str());
  fflush(stdout);
}

// Returns true if the history was restored.
bool judgeOne(Runner &runner, const Campaign &campaign, uint64_t seed, const Outcome &outcome) {
  if (outcome.problems.empty()) return true;
  report(outcome, seed, "FAILED");
  if (campaign.shrink) report(runner.shrink(outcome, seed), seed, "SHRUNK");
  return false;
}

int replayFile(Runner &runner, const Campaign &campaign) {
  std::ifstream in(campaign.replayFile);
  if (!in) throw std::runtime_error("cannot read " + campaign.replayFile);
  const std::string text{std::istreambuf_iterator<char>(in), {}};
  const bool passed =
      judgeOne(runner, campaign, campaign.seed, runner.replay(parseHistory(text), campaign.seed));
  printf("replay: %s\n", passed ? "passed" : "failed");
  return passed ? 0 : 1;
}

int runSeeds(Runner &runner, const Settings &settings, const Campaign &campaign) {
  std::string failed;
  uint64_t done = 0, failures = 0;
  const double start = elapsed();
  while (done < campaign.count && failures < campaign.stopAfter &&
         (done == 0 || elapsed() - start < campaign.seconds)) {
    const uint64_t seed = campaign.seed + done++;
    if (judgeOne(runner, campaign, seed, runner.generate(seed))) continue;
    ++failures;
    failed += " " + std::to_string(seed);
  }
  printf("histories: profile %s, from seed %llu: %llu passed, %llu failed, in %.1f s\n",
         settings.profile.c_str(), static_cast<unsigned long long>(campaign.seed),
         static_cast<unsigned long long>(done - failures), static_cast<unsigned long long>(failures),
         elapsed() - start);
  if (runner.mountedAgain() > 0)
    printf("trees looked at again through a new mount: %u\n", runner.mountedAgain());
  if (settings.loseWorkers) printf("workers lost: %u\n", runner.workersLost());
  if (failures > 0) printf("failed seeds:%s\n", failed.c_str());
  const bool idle = settings.loseWorkers && runner.workersLost() == 0;
  return failures == 0 && done > 0 && !idle ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  Settings settings;
  Campaign campaign;
  try {
    if (!readOptions({argv + 1, argv + argc}, &settings, &campaign)) {
      fputs(kUsage, stderr);
      return 2;
    }
    Runner runner(settings);
    return campaign.replayFile.empty() ? runSeeds(runner, settings, campaign)
                                       : replayFile(runner, campaign);
  } catch (const std::exception &error) {
    fprintf(stderr, "histories: %s\n", error.what());
    return 2;
  }
}
