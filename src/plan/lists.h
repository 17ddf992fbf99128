// The lists that the walks write: one decision becomes records of them. Master only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "formats/operation.h"
#include "run/work_file.h"

// The open lists of a run. The driver owns the one object; the walks write through it. rc of a failure
// is the errno unless a call says otherwise.
class MasterLists {
 public:
  MasterLists();
  ~MasterLists();
  MasterLists(const MasterLists &) = delete;
  MasterLists &operator=(const MasterLists &) = delete;

  // Opens opList and opList.copy for the current pass. The copy list holds the records of all passes,
  // for it is worked off after the last. Failures have printed their message.
  Result openForPass();
  // Writes out and closes what openForPass and the walks opened, but for the two lists below.
  Result closePass();

  // regMoveList of the current pass and dirMoveList of the whole run. Each is opened by its first
  // record and stays open, with true here, until it is closed.
  bool haveRegMoves() const { return reg_moves_ != nullptr; }
  Result closeRegMoves();
  bool haveDirMoves() const { return dir_move_list_ != nullptr; }
  Result closeDirMoves();
  // Directories listed for the final move so far, in order.
  const std::vector<uint64_t> &dirMoves() const { return dir_moves_; }

  // Closes all of it, for the end of a run.
  Result closeAll();

  // Op 5 records the destination of `ino` and writes no record; 4 goes to opList.move, 1 to
  // opList.copy, 2 becomes the changed ranges of a file (truncating the active file first), every other
  // code one record of opList. `path`: active path or temporary location. Failures are traced; their rc
  // is an errno or -1.
  Result ListRecord(const std::string &path, uint64_t ino, OpCode opCode);

  // The same for objects below a deleted or new directory: writes to the list of depth `dirDepth` in
  // the set of `rootIno` (DelDir_ when `isDelDir`, else NewDir_); op 1 goes to opList.copy, op 4 to the
  // depth's move list.
  Result DirListRecord(uint64_t rootIno, const std::string &path, uint64_t ino, OpCode opCode,
                       bool isDelDir);

  // The op 4 record that brings a non-directory back from its temporary location.
  Result ListRegMoveBack(uint64_t ino);
  // A directory for the final directory move.
  Result ListDirMoveBack(uint64_t ino);

  // Nesting depth of the current object below its top deleted or new directory; 0 in a common
  // directory.
  int32_t dirDepth = 0;

 private:
  class SetLists;  // the lists of directory sets that are open
  Result listOne(const std::string &path, uint64_t ino, OpCode opCode);
  Result listOneInSet(uint64_t rootIno, const std::string &path, uint64_t ino, OpCode opCode,
                      bool isDelDir);

  std::unique_ptr<WorkFile> op_list_, copy_list_, reg_moves_, dir_move_list_;
  std::unique_ptr<SetLists> sets_;
  std::vector<uint64_t> dir_moves_;
};
