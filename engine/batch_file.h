// The file that hands a batch to its worker.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "engine/batcher.h"
#include "engine/run_directory.h"

// Owns the file, which exists from create() until the object is destroyed.
class BatchFile {
 public:
  BatchFile() = default;
  BatchFile(const BatchFile &) = delete;
  BatchFile &operator=(const BatchFile &) = delete;
  ~BatchFile() { remove(); }

  // Writes the batch to a new file of `directory`, which must outlive this object (for its name see
  // batchName in formats/work_names.h). Only this user can read the file. Never opens or replaces an
  // existing name. rc of a failure is the errno; no file is left then.
  Result create(const RunDirectory &directory, uint64_t number, const Batch &batch);

  const std::string &path() const { return path_; }

 private:
  void remove();

  std::string path_;  // "" without a file
  const RunDirectory *directory_ = nullptr;
};
