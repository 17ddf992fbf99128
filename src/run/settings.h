// The settings of a run: what the command line says, and the state that every module looks at.
// Names are those of the trace log and of the option strings handed to workers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What a process is for.
enum class Role {
  kMaster,      // fsetrestore as the administrator starts it
  kWorker,      // fsetrestore LIST, started by the policy engine for one batch
  kComparison,  // fsetcompare: reads both trees, has no work directory and changes nothing
};

// Phase numbers are on command lines and in the trace log.
enum Phase : int32_t {
  kPhaseMaster = 0,
  kPhaseMain = 3,          // opList, opList.move, per-directory lists
  kPhaseMoveBack = 4,      // regMoveList
  kPhasePending = 5,       // regPendingMvList
  kPhaseDirs = 6,          // dir.new, final directory move
  kPhaseClones = 7,        // clone.<d>
  kPhaseLinks = 8,         // link.ino
  kPhaseCloneDelete = 31,  // clone.del.<d>
  kPhaseCreate = 51,       // opList.copy
};

struct Settings {
  Role role = Role::kMaster;
  std::string deviceP;  // absolute path, or as typed while the command line is read
  std::string filesetP;
  std::string snapOldP;
  std::string exe;               // absolute path of this program; the engine starts it for each batch
  int32_t maxFiles = 1000;       // most records in a worker's batch
  int32_t unitSize = 100;        // records that list writers put under one aggregate number
  int32_t fsBlockSize = 262144;  // bytes; the transfer unit
  int32_t frameSize = 262144 * 128;  // bytes; largest range of one data record
  std::string nodeSpec = "all";
  bool Debug = true;         // -q clears it
  bool Verb = false;         // -v
  bool noXAttr = false;      // -x
  bool encryptEA = false;    // -E
  bool topDir = true;        // -D clears it: a worker that starts no nested run
  int32_t phase = 0;         // 0 in the master and in comparisons, see Phase
  int32_t pass = 0;          // scan pass, from 1
  std::string shareDir;      // path of the work directory; empty in comparisons
  bool path2long = false;    // a path would have reached 4096 bytes
  std::string longPath;      // the first one that would have
  bool dirsSettled = false;  // master: the final directory move has begun

  int32_t threads = 36;      // -m
  uint64_t mem = 0;          // -M, KiB; 0: from the machine
  bool keepWorkDir = false;  // -k, -v
  int32_t callerPid = 0;     // -c, workers
  std::string listFile;      // the batch of a worker

  bool isMaster() const { return role == Role::kMaster; }
};

extern Settings settings;

constexpr size_t kPathMax = 4096;  // a path is shorter than this
