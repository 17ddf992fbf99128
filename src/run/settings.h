// The settings of a run: the options of the command line and the state that every module reads. The
// names are those of the trace log and of the options that workers get.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>

#include "formats/phase.h"

// The purpose of a process.
enum class Role {
  kMaster,      // fsetrestore as the administrator starts it
  kWorker,      // fsetrestore LIST, started by the policy engine for one batch
  kComparison,  // fsetcompare: reads both trees, has no work directory and changes nothing
};

struct Settings {
  Role role = Role::kMaster;
  std::string deviceP;  // absolute path; as typed until the command line is parsed
  std::string filesetP;
  std::string snapOldP;
  std::string exe;          // absolute path of this program, which the engine starts for every batch
  int32_t maxFiles = 1000;  // most records in one batch
  int32_t unitSize = 100;   // records that list writers put under one aggregate number
  int32_t fsBlockSize = 262144;      // bytes; the transfer unit
  int32_t frameSize = 262144 * 128;  // bytes; largest range of one data record
  std::string nodeSpec = "all";
  bool Debug = true;         // -q clears it
  bool Verb = false;         // -v
  bool noXAttr = false;      // -x
  bool encryptEA = false;    // -E
  bool topDir = true;        // -D clears it: this worker must not start nested runs
  int32_t phase = 0;         // 0 in the master and in comparisons; see Phase
  int32_t pass = 0;          // scan pass, from 1
  std::string shareDir;      // path of the work directory; empty in comparisons
  bool path2long = false;    // a path would have reached 4096 bytes
  std::string longPath;      // the first such path
  bool dirsSettled = false;  // master: the final directory move has begun

  int32_t threads = 36;      // -m
  uint64_t mem = 0;          // -M, in KiB; 0: derive it from the machine's memory
  bool keepWorkDir = false;  // -k, -v
  int32_t callerPid = 0;     // -c, workers
  std::string listFile;      // batch file of a worker

  bool isMaster() const { return role == Role::kMaster; }
};

inline Settings settings;

constexpr size_t kPathMax = PATH_MAX;      // 4096; a path is shorter than this, in bytes
constexpr size_t kWorkDirPathMost = 1023;  // bytes; workers accept no longer path of a work directory
constexpr int64_t kBlock = 4096;           // bytes; holes and shared ranges consist of whole blocks
