// The lists that the walks write: each decision becomes records of a list. Master only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "formats/operation.h"
#include "run/work_file.h"

// The open lists of a run. The driver owns the only object; the walks write through it. rc of a failure
// is the errno unless a call says otherwise.
class MasterLists {
 public:
  MasterLists();
  ~MasterLists();
  MasterLists(const MasterLists &) = delete;
  MasterLists &operator=(const MasterLists &) = delete;

  // Opens opList and opList.copy for the current pass. opList.copy collects the records of all passes,
  // because it runs after the last one. Failures print a message.
  Result openForPass();
  // Flushes and closes the lists of the pass, but not the two below.
  Result closePass();

  // regMoveList belongs to the current pass, dirMoveList to the whole run. The first record opens each,
  // and it stays open ("have" returns true) until it is closed.
  bool haveRegMoves() const { return reg_moves_ != nullptr; }
  Result closeRegMoves();
  bool haveDirMoves() const { return dir_move_list_ != nullptr; }
  Result closeDirMoves();
  // Returns the directories listed so far for the final move, in order.
  const std::vector<uint64_t> &dirMoves() const { return dir_moves_; }

  // Closes all lists at the end of a run.
  Result closeAll();

  // Records one operation. Op 5 only records the destination of `ino`. Op 4 goes to opList.move and op
  // 1 to opList.copy. Op 2 becomes the changed ranges of a file, which is truncated at once if
  // necessary. Every other code is one record of opList. `path` is an active path or a temporary
  // location. Failures are traced; rc is an errno or -1.
  Result ListRecord(const std::string &path, uint64_t ino, OpCode opCode);

  // Like ListRecord for objects below a deleted or new directory. Writes to the list of depth
  // `dirDepth` in the set of `rootIno` (DelDir_ if `isDelDir`, else NewDir_). Op 1 goes to opList.copy,
  // op 4 to the move list of the depth.
  Result DirListRecord(uint64_t rootIno, const std::string &path, uint64_t ino, OpCode opCode,
                       bool isDelDir);

  // Writes the op 4 record that moves a non-directory home from its temporary location.
  Result ListRegMoveBack(uint64_t ino);
  // Lists a directory for the final directory move.
  Result ListDirMoveBack(uint64_t ino);

  // Depth of the current object below its top deleted or new directory; 0 in a common directory.
  int32_t dirDepth = 0;

 private:
  class SetLists;  // the open lists of directory sets
  Result listMove(const std::string &path, uint64_t ino);
  Result listOne(const std::string &path, uint64_t ino, OpCode opCode);
  Result listOneInSet(uint64_t rootIno, const std::string &path, uint64_t ino, OpCode opCode,
                      bool isDelDir);

  std::unique_ptr<WorkFile> op_list_, copy_list_, move_list_, reg_moves_, dir_move_list_;
  std::unique_ptr<SetLists> sets_;
  std::vector<uint64_t> dir_moves_;
};
