// Cuts the records of a list into batches.
//
// - The records keep their order.
// - Consecutive records of one aggregate stay together, up to the batch size. More of them are cut
//   into full batches; a remainder of one record joins the batch before it, because an aggregate is
//   often one record longer than a batch.
// - Small aggregates share a batch as long as each fits whole.
// - Large byte ranges of different aggregates never share a batch: every range of a large file has
//   its own aggregate, so that several workers copy the file. Small ranges do share, because they
//   cost less than starting a worker.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "formats/list_record.h"

inline constexpr uint64_t kLargeRange = 65536;  // bytes

// The part of a list record that the engine keeps until its worker starts.
struct BatchRecord {
  BatchRecord() = default;
  explicit BatchRecord(const ListRecord &record);

  int64_t aggregate = 0;
  bool large_range = false;  // file data of kLargeRange bytes or more
  std::string line;          // line of the batch file
};

using Batch = std::vector<BatchRecord>;

// Returns the number of records for a batch of a list with `records` records, if `workers` can run at
// the same time and a batch may hold `most`. Starting a worker costs as much as about twenty records,
// so batches are large. Every worker still gets several, because batches take different times.
size_t balancedBatchSize(uint64_t records, size_t workers, size_t most);

// Works on a stream: holds at most about two incomplete batches.
class Batcher {
 public:
  explicit Batcher(size_t max_records) : max_records_(max_records) {}

  void add(BatchRecord record);
  // Call this after the last record.
  void finish();
  // Returns true and the next complete batch, or false.
  bool take(Batch *batch);

 private:
  void endRun();
  void closeOpen();

  size_t max_records_;
  Batch run_;   // records of the current aggregate that are in no batch yet
  Batch open_;  // a batch that can take further whole aggregates
  bool open_has_ranges_ = false;
  std::deque<Batch> ready_;
};
