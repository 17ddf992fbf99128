#include "restore/command_line.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "messages/clem.h"
#include "messages/messages.h"
#include "run/settings.h"

namespace {

constexpr size_t kNodeListMost = 1023;  // characters

int32_t number(const char *text) {
  return static_cast<int32_t>(strtol(text, nullptr, 10));
}

// Parses "<number><m|M|g|G>" into KiB; returns false for any other last character. Large numbers
// saturate.
bool parseMemory(const char *text, uint64_t *kib) {
  const size_t length = strlen(text);
  uint64_t factor = 0;
  switch (length ? text[length - 1] : '\0') {
    case 'm':
    case 'M':
      factor = 1024;
      break;
    case 'g':
    case 'G':
      factor = 1048576;
      break;
    default:
      return false;
  }
  const long long value = strtoll(std::string(text, length - 1).c_str(), nullptr, 10);
  const uint64_t units = value < 0 ? 0 : static_cast<uint64_t>(value);
  *kib = units > std::numeric_limits<uint64_t>::max() / factor ? std::numeric_limits<uint64_t>::max()
                                                               : units * factor;
  return true;
}

// The engine starts this program from another directory and with another PATH, so it needs an absolute
// path.
std::string ownPath(const char *argv0) {
  char path[kPathMax];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0 || static_cast<size_t>(length) == sizeof path) return argv0;
  return std::string(path, static_cast<size_t>(length));
}

// The run is about to leave the current directory, so a relative device would be lost.
std::string absoluteDevice(const std::string &typed) {
  if (typed.empty() || typed.front() == '/') return typed;
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(typed.c_str(), nullptr), free);
  return resolved ? std::string(resolved.get()) : typed;
}

RunMode usage(const char *argv0) {
  userMessage(Message::kUsage, basename(argv0));
  return RunMode::kUsage;
}

// Returns false if the command line must be answered by the usage message.
bool applyOption(int option, const char *value) {
  switch (option) {
    case 'j':
      settings.filesetP = value;
      break;
    case 'o':
      settings.snapOldP = value;
      break;
    case 'b':
      settings.unitSize = settings.maxFiles = number(value);
      break;
    case 'B':
      settings.maxFiles = number(value);
      break;
    case 'm':
      settings.threads = number(value);
      break;
    case 'N':
      if (strlen(value) > kNodeListMost) return false;
      settings.nodeSpec = value;
      break;
    case 'M':
      return parseMemory(value, &settings.mem);
    case 'q':
      settings.Debug = false;
      break;
    case 'v':
      settings.Verb = settings.Debug = settings.keepWorkDir = true;
      break;
    case 'x':
      settings.noXAttr = true;
      break;
    case 'E':
      settings.encryptEA = true;
      break;
    case 'k':
      settings.keepWorkDir = true;
      break;
    case 'd':
      settings.deviceP = value;
      break;
    case 't':
      if (strlen(value) > kWorkDirPathMost) return false;
      settings.shareDir = value;
      break;
    case 'p':
      settings.phase = number(value);
      break;
    case 's':
      settings.pass = number(value);
      break;
    case 'c':
      settings.callerPid = number(value);
      break;
    case 'D':
      settings.topDir = false;
      break;
    default:
      break;
  }
  return true;
}

}  // namespace

RunMode readCommandLine(int argc, char **argv) {
  if (argc < 2) {
    printCLEM(nullptr, kClemTooFewArguments);
    return usage(argc > 0 ? argv[0] : "fsetrestore");
  }
  settings.exe = ownPath(argv[0]);
  if (strcmp(argv[1], "TEST") == 0) {
    if (argc != 7) return RunMode::kProbe;
    settings.role = Role::kWorker;
    settings.shareDir = argv[2];
    settings.deviceP = argv[4];
    settings.filesetP = argv[5];
    settings.snapOldP = argv[6];
    return RunMode::kNodeProbe;
  }
  const bool worker = strcmp(argv[1], "LIST") == 0;
  settings.role = worker ? Role::kWorker : Role::kMaster;
  if (worker) {
    if (argc > 2) settings.listFile = argv[2];
  } else {
    settings.deviceP = argv[1];
  }

  // The leading '-' makes getopt return other words in their order, too, even with POSIXLY_CORRECT.
  optind = 0;
  int option;
  while ((option = getopt(argc, argv, "-j:b:B:o:t:Dd:m:s:M:N:p:c:Eqvxk")) != -1) {
    if (option == 1) continue;
    if (option == '?') break;
    if (!applyOption(option, optarg)) return usage(argv[0]);
  }

  const bool right_phase = worker ? settings.phase > 2 : settings.phase == 0;
  if (!right_phase) return usage(argv[0]);
  if ((settings.snapOldP.empty() || settings.filesetP.empty()) && settings.phase != kPhaseMoveBack)
    return usage(argv[0]);
  if (!worker) {
    settings.deviceP = absoluteDevice(settings.deviceP);
    // These two options are for workers: the master makes its own work directory and counts its passes
    // from 1.
    settings.shareDir.clear();
    settings.pass = 0;
  } else if (settings.shareDir.empty()) {
    return usage(argv[0]);  // else its marker would go to the machine's root directory
  }
  return RunMode::kRun;
}
