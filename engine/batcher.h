// Cuts the records of a list into batches.
//
// - The records keep their order.
// - Consecutive records of one aggregate stay together, up to the batch size. More of them are cut
//   into full batches; a remainder of one record joins the batch before it, because an aggregate is
//   often one record longer than a batch.
// - Small aggregates share a batch as long as each fits whole.
// - Byte ranges of different aggregates share a batch up to kSharedBytes: every range of a large file
//   has its own aggregate, so that several workers copy the file. Ranges of less data share, because
//   they cost less than starting a worker.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "formats/list_record.h"

inline constexpr uint64_t kSharedBytes = 8 << 20;

// The part of a list record that the engine keeps until its worker starts.
struct BatchRecord {
  BatchRecord() = default;
  explicit BatchRecord(const ListedRecord &record);

  int64_t aggregate = 0;
  uint64_t bytes = 0;  // length of its byte range
  std::string line;    // line of the batch file
};

using Batch = std::vector<BatchRecord>;

// Returns the number of records for a batch of a list with `records` records, if `workers` can run at
// the same time and a batch may hold `most`. Starting a worker costs as much as about twenty records of
// a local file system, so that batches have 400 records or more. On a clustered one (`waits`) a worker
// mostly waits for servers: many are to wait at the same time, so 100 records are enough. Every worker
// of a long list still gets several batches, because batches take different times.
size_t balancedBatchSize(uint64_t records, size_t workers, bool waits, size_t most);

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
  Batch run_;                // records of the current aggregate that are in no batch yet
  Batch open_;               // a batch that can take further whole aggregates
  uint64_t open_bytes_ = 0;  // of the ranges in open_
  std::deque<Batch> ready_;
};
