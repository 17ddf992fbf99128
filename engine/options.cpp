#include "engine/options.h"

#include <getopt.h>

#include <charconv>
#include <cstring>
#include <string>
#include <vector>

const char *const kEngineUsage =
    "Usage: ktapplypolicy DEVICE -P POLICY -g DIRECTORY -r LIST [-m N] [-B N] [-N NODES]\n"
    "Hands the records of LIST, in batches, to the script of POLICY's EXTERNAL LIST rule, which is\n"
    "started as EXEC LIST <batch file> OPTS.\n"
    "  -P POLICY     policy file with one EXTERNAL LIST rule (EXEC, OPTS)\n"
    "  -g DIRECTORY  where batch files are written\n"
    "  -r LIST       the list of records\n"
    "  -m N          workers at a time, on all nodes together (24)\n"
    "  -B N          most records in a batch (1000)\n"
    "  -N NODES      machines that share the work, separated by commas: ssh names, localhost, or all\n"
    "                for those in /usr/qtx/kest/etc/nodes. Only a clustered file system allows other\n"
    "                machines than this one\n"
    "  --ask COMMAND --answer TEXT\n"
    "                only prints the number of nodes and runs COMMAND on every other one;\n"
    "                ends with 0 if each prints TEXT\n"
    "  -h, --help    this text\n"
    "  --version     the version\n"
    "KT_MAX_WORKERS in the environment limits the workers of this run and all runs nested in it\n"
    "(the number of processors, at least 2; twice that, at least 4, if the file system is clustered).\n"
    "KT_DIRECTORY, <device>:<inode>, says which directory DIRECTORY must be. In any case it must belong\n"
    "to the caller, and nobody else may be able to write to it.\n"
    "Exit status: 0 every worker ended with 0; 28 no space, for batch files or a worker; 1 anything "
    "else.\n";

namespace {

bool parseCount(const char *text, size_t *value) {
  const char *end = text + strlen(text);
  auto [stop, error] = std::from_chars(text, end, *value);
  return error == std::errc() && stop == end && *value >= 1 && *value <= 0x7fffffff;
}

}  // namespace

bool parseOptions(int argc, char **argv, Options *options, std::string *problem) {
  static const struct option kLong[] = {
      {"help", no_argument, nullptr, 'h'},         {"version", no_argument, nullptr, 'V'},
      {"part", required_argument, nullptr, 'p'},   {"ask", required_argument, nullptr, 'a'},
      {"answer", required_argument, nullptr, 'w'}, {}};
  optind = 0;  // restarts getopt
  opterr = 0;
  int letter;
  std::vector<std::string> devices;
  // The leading '-' makes getopt return other words in their order, too, even with POSIXLY_CORRECT.
  while ((letter = getopt_long(argc, argv, "-:P:g:r:m:B:N:h", kLong, nullptr)) != -1) {
    switch (letter) {
      case 1:
        devices.push_back(optarg);
        break;
      case 'P':
        options->policy = optarg;
        break;
      case 'g':
        options->directory = optarg;
        break;
      case 'r':
        options->list = optarg;
        break;
      case 'N':
        options->nodes = optarg;
        break;
      case 'p':
        options->part = optarg;
        break;
      case 'a':
        options->ask = optarg;
        break;
      case 'w':
        options->answer = optarg;
        break;
      case 'h':
        options->help = true;
        return true;
      case 'V':
        options->version = true;
        return true;
      case 'm':
      case 'B':
        if (!parseCount(optarg, letter == 'm' ? &options->max_workers : &options->batch_size)) {
          *problem = std::string("-") + static_cast<char>(letter) + " needs a number of 1 or more";
          return false;
        }
        break;
      case ':':
        *problem = std::string("-") + static_cast<char>(optopt) + " needs a value";
        return false;
      default:
        *problem = std::string("unknown option ") + argv[optind - 1];
        return false;
    }
  }
  devices.insert(devices.end(), argv + optind, argv + argc);
  if (devices.size() != 1 || devices.front().empty()) {
    *problem = "exactly one device is needed";
    return false;
  }
  options->device = devices.front();
  if (!options->ask.empty()) return true;
  if (options->policy.empty() || options->directory.empty() || options->list.empty()) {
    *problem = "-P, -g and -r are needed";
    return false;
  }
  return true;
}
