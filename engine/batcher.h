// How records become batches.
//
// - The records keep their order.
// - A run of records of one aggregate stays together, up to the batch size; a longer run is cut into
//   full batches, and a remainder of one record joins the batch before it (aggregates tend to be one
//   record longer than a batch).
// - Small aggregates share a batch as long as each fits whole.
// - Large byte ranges of different aggregates never share a batch: the ranges of a large file are
//   numbered into an aggregate each, so that many workers copy it at once. Small ones do: they cost
//   less than the start of a worker.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "formats/list_record.h"

inline constexpr uint64_t kLargeRange = 65536;  // bytes

// What the engine keeps of a list record until its worker starts.
struct BatchRecord {
  BatchRecord() = default;
  explicit BatchRecord(const ListRecord &record);

  int64_t aggregate = 0;
  bool large_range = false;  // a range of file data of kLargeRange bytes or more
  std::string line;          // of the batch file
};

using Batch = std::vector<BatchRecord>;

// How many records a batch of a list of `records` gets, when `workers` can run at a time and a batch may
// have `most`. The start of a worker takes as long as some twenty records, so batches are large; but
// every worker gets several, for they do not all take equally long.
size_t balancedBatchSize(uint64_t records, size_t workers, size_t most);

// Streaming: holds at most about two batches that are not complete.
class Batcher {
 public:
  explicit Batcher(size_t max_records) : max_records_(max_records) {}

  void add(BatchRecord record);
  // No more records come.
  void finish();
  // True and the next complete batch.
  bool take(Batch *batch);

 private:
  void endRun();
  void closeOpen();

  size_t max_records_;
  Batch run_;   // the current aggregate, as far as it is not in a batch yet
  Batch open_;  // a batch that may take further aggregates whole
  bool open_has_ranges_ = false;
  std::deque<Batch> ready_;
};
