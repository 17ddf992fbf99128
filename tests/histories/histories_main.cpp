// histories: restores after random histories, judged by reading both trees afresh.
// Run it in the private namespace: tools/private-namespace BUILD/bin BUILD/tests/histories --help
#include <getopt.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
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
    "  --workers M        -m of the restore; else 2 for even seeds and 36 for odd ones\n"
    "  --max-workers N    KT_MAX_WORKERS of the restore\n"
    "  --passes N,N...    DIFF_ITEM_LIMIT, one of them at random (for a program that knows it)\n"
    "  --kill-before      first kill one or two restores at random moments\n"
    "  --lose-workers     kill workers at random calls, up to three times a run\n"
    "  --compare          fsetcompare must find a difference exactly where the trees differ\n"
    "  --program PATH     the restore program\n"
    "  --timeout N        seconds for one restore (60)\n"
    "  --shrink           reduce failing histories to few operations\n"
    "  --replay FILE      restore after the history in FILE, as printed by a failure\n"
    "  --keep             restore with -k; work directories of failures go to /tmp/histories-SEED\n"
    "  --verbose          print every history\n";

struct Campaign {
  uint64_t seed = 1, count = 100, stopAfter = 0;
  double seconds = 0;
  bool shrink = false;
  std::string replayFile;
};

double elapsed() {
  static const auto start = std::chrono::steady_clock::now();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::vector<int> numbers(const char *text) {
  std::vector<int> list;
  std::istringstream in(text);
  for (std::string word; std::getline(in, word, ',');) list.push_back(atoi(word.c_str()));
  return list;
}

// False where the command line is wrong.
bool readOptions(int argc, char **argv, Settings *settings, Campaign *campaign) {
  const option options[] = {
      {"profile", 1, nullptr, 'p'},      {"seed", 1, nullptr, 's'},    {"count", 1, nullptr, 'c'},
      {"seconds", 1, nullptr, 't'},      {"stop", 1, nullptr, 'S'},    {"workers", 1, nullptr, 'm'},
      {"max-workers", 1, nullptr, 'M'},  {"passes", 1, nullptr, 'P'},  {"kill-before", 0, nullptr, 'K'},
      {"lose-workers", 0, nullptr, 'L'}, {"program", 1, nullptr, 'e'}, {"timeout", 1, nullptr, 'T'},
      {"shrink", 0, nullptr, 'r'},       {"replay", 1, nullptr, 'R'},  {"keep", 0, nullptr, 'k'},
      {"verbose", 0, nullptr, 'v'},      {"compare", 0, nullptr, 'C'}, {nullptr, 0, nullptr, 0}};
  for (int letter; (letter = getopt_long(argc, argv, "", options, nullptr)) >= 0;) {
    switch (letter) {
      case 'p':
        settings->profile = optarg;
        break;
      case 's':
        campaign->seed = strtoull(optarg, nullptr, 10);
        break;
      case 'c':
        campaign->count = strtoull(optarg, nullptr, 10);
        break;
      case 't':
        campaign->seconds = atof(optarg);
        break;
      case 'S':
        campaign->stopAfter = strtoull(optarg, nullptr, 10);
        break;
      case 'm':
        settings->workers = atoi(optarg);
        break;
      case 'M':
        settings->maxWorkers = atoi(optarg);
        break;
      case 'P':
        settings->passes = numbers(optarg);
        break;
      case 'K':
        settings->killBefore = true;
        break;
      case 'L':
        settings->loseWorkers = true;
        break;
      case 'C':
        settings->compare = true;
        break;
      case 'e':
        settings->program = optarg;
        break;
      case 'T':
        settings->timeoutSeconds = atof(optarg);
        break;
      case 'r':
        campaign->shrink = true;
        break;
      case 'R':
        campaign->replayFile = optarg;
        break;
      case 'k':
        settings->keep = true;
        break;
      case 'v':
        settings->verbose = true;
        break;
      default:
        return false;
    }
  }
  return optind == argc && isProfile(settings->profile);
}

void report(const Outcome &outcome, uint64_t seed, const char *title) {
  printf("%s, seed %llu\n%s--- differences (%zu)\n%s--- restore: %s\n", title,
         static_cast<unsigned long long>(seed), print(outcome.history).c_str(), outcome.problems.size(),
         testsupport::joined(outcome.problems).c_str(), outcome.runText.c_str());
  fflush(stdout);
}

// True where the history was restored.
bool judgeOne(Runner &runner, const Settings &settings, const Campaign &campaign, uint64_t seed,
              Outcome outcome) {
  if (outcome.problems.empty()) {
    if (settings.verbose) report(outcome, seed, "passed");
    return true;
  }
  report(outcome, seed, "FAILED");
  if (campaign.shrink) report(runner.shrink(outcome, seed), seed, "SHRUNK");
  return false;
}

int replayFile(Runner &runner, const Settings &settings, const Campaign &campaign) {
  std::ifstream in(campaign.replayFile);
  if (!in) {
    fprintf(stderr, "cannot read %s\n", campaign.replayFile.c_str());
    return 2;
  }
  std::string text{std::istreambuf_iterator<char>(in), {}};
  Outcome outcome = runner.replay(parseHistory(text), campaign.seed);
  bool passed = judgeOne(runner, settings, campaign, campaign.seed, std::move(outcome));
  printf("replay: %s\n", passed ? "passed" : "failed");
  return passed ? 0 : 1;
}

int runSeeds(Runner &runner, const Settings &settings, const Campaign &campaign) {
  std::vector<uint64_t> failed;
  uint64_t done = 0;
  double restoring = 0, start = elapsed();
  for (; done < campaign.count; ++done) {
    if (campaign.seconds > 0 && done > 0 && elapsed() - start > campaign.seconds) break;
    uint64_t seed = campaign.seed + done;
    Outcome outcome = runner.generate(seed);
    restoring += outcome.restoreSeconds;
    if (!judgeOne(runner, settings, campaign, seed, std::move(outcome))) failed.push_back(seed);
    if (campaign.stopAfter && failed.size() >= campaign.stopAfter) {
      ++done;
      break;
    }
  }
  double took = elapsed() - start;
  printf(
      "histories: profile %s, seeds %llu to %llu: %zu passed, %zu failed; %.1f s, of which %.1f s in "
      "the "
      "last restores\n",
      settings.profile.c_str(), static_cast<unsigned long long>(campaign.seed),
      static_cast<unsigned long long>(campaign.seed + done - 1),
      static_cast<size_t>(done) - failed.size(), failed.size(), took, restoring);
  if (settings.loseWorkers) printf("workers lost: %u\n", runner.workersLost());
  if (!failed.empty()) {
    printf("failed seeds:");
    for (uint64_t seed : failed) printf(" %llu", static_cast<unsigned long long>(seed));
    printf("\n");
  }
  const bool idle = settings.loseWorkers && runner.workersLost() == 0;
  return failed.empty() && done > 0 && !idle ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  Settings settings;
  Campaign campaign;
  if (!readOptions(argc, argv, &settings, &campaign)) {
    fputs(kUsage, stderr);
    return 2;
  }
  try {
    Runner runner(settings);
    return campaign.replayFile.empty() ? runSeeds(runner, settings, campaign)
                                       : replayFile(runner, settings, campaign);
  } catch (const std::exception &error) {
    fprintf(stderr, "histories: %s\n", error.what());
    return 2;
  }
}
