// The file that carries one batch to its worker.
#pragma once

#include <cstdint>
#include <string>

#include "base/result.h"
#include "engine/batcher.h"
#include "engine/run_directory.h"

// The file exists from create() until the object goes.
class BatchFile {
 public:
  BatchFile() = default;
  BatchFile(const BatchFile &) = delete;
  BatchFile &operator=(const BatchFile &) = delete;
  ~BatchFile() { remove(); }

  // Writes the batch into a new file of `directory`, which outlives this (formats/work_names.h,
  // batchName), readable by this user only, never over or through an existing name. rc of a failure is
  // the errno; no file is left then.
  Result create(const RunDirectory &directory, uint64_t number, const Batch &batch);

  const std::string &path() const { return path_; }

 private:
  void remove();

  std::string path_;  // empty: no file
  const RunDirectory *directory_ = nullptr;
};
