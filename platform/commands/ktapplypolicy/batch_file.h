// The file that carries one batch to its worker.
#pragma once

#include <cstdint>
#include <string>

#include "commands/ktapplypolicy/batcher.h"
#include "commands/ktapplypolicy/run_directory.h"

namespace kest {

// One line of a batch file:
//   <inode, decimal> <generation> <snapshot>  <operation> -- <path>\n
// with backslash, newline and tab in the path written as \\, \n and \t.
std::string formatBatchLine(const ListRecord &record);

// The file exists from create() until the object goes.
class BatchFile {
 public:
  BatchFile() = default;
  BatchFile(BatchFile &&other) noexcept;
  BatchFile &operator=(BatchFile &&other) noexcept;
  ~BatchFile();

  // Writes `directory`/ktapplypolicy.<pid>.<number>, readable by this user only, never over or through
  // an existing name. 0 or -errno; after a failure no file is left. `directory` outlives this.
  int create(const RunDirectory &directory, uint64_t number, const Batch &batch);

  const std::string &path() const { return path_; }

 private:
  std::string path_;  // empty: no file
  const RunDirectory *directory_ = nullptr;
};

}  // namespace kest
