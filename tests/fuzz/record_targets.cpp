// Lists, batches and checkpoints: written records are read unchanged, and damage is noticed.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "base/file_io.h"
#include "engine/batcher.h"
#include "formats/batch_line.h"
#include "formats/checkpoint.h"
#include "formats/list_record.h"
#include "fuzz/fuzz.h"

namespace fuzz {

namespace {

// The batch line carries everything from engine to worker.
void checkBatchLine(const ListedRecord &record) {
  const std::string line = formatBatchLine(record);
  FUZZ_CHECK(line.size() < kBatchLineMax && line.find('\n') == line.size() - 1);
  BatchLine read;
  FUZZ_CHECK(parseBatchLine(line, &read));
  FUZZ_CHECK(read.ino == record.ino && read.opString == record.opString && read.path == record.path);
}

// A list reads the same from a file as from memory, whatever the size of the reads.
void listRecord(std::string_view input) {
  const std::string file = scratchFolder() + "/list";
  UniqueFd fd(open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  FUZZ_CHECK(writeAll(fd.get(), input));
  ListReader list(64);
  FUZZ_CHECK(list.open(std::move(fd)));
  for (size_t at = 0;;) {
    ListedRecord here, there;
    RecordProblem problem;
    bool end = false;
    const Result r = list.next(&there, &end);
    FUZZ_CHECK(end == (at == input.size()));
    if (end) return;
    if (!parseListRecord(input.substr(at, kListRecordMax), &here, &problem)) {
      FUZZ_CHECK(r.err == EINVAL && list.position() == at && *problem.what != '\0');
      FUZZ_CHECK(list.problem() == problem.what + (" at byte " + std::to_string(at + problem.at)));
      FUZZ_CHECK(at + problem.at <= input.size());
      return;
    }
    FUZZ_CHECK(r && there.whole == here.whole && there.path == here.path && there.ino == here.ino);
    FUZZ_CHECK(here.whole == input.substr(at, here.whole.size()) && here.whole.ends_with('\n'));
    checkBatchLine(here);
    at += here.whole.size();
    FUZZ_CHECK(list.position() == at);
  }
}

void opString(std::string_view input) {
  Operation op, again;
  if (!parseOpString(input, &op)) return;
  const std::string text = formatOpString(op);
  FUZZ_CHECK(text.size() <= kOpStringMax && parseOpString(text, &again) && again == op);
}

void batchLine(std::string_view input) {
  BatchLine line;
  if (!parseBatchLine(input, &line)) return;
  FUZZ_CHECK(!line.opString.empty() && line.opString.size() <= kOpStringMax);
  ListedRecord record;
  record.ino = line.ino;
  record.opString = line.opString;
  record.path = std::string_view(line.path).substr(0, 4095);
  checkBatchLine(record);
}

// From master to engine to worker: the worker gets any path unchanged.
void recordRoad(std::string_view input) {
  uint64_t ino = 0;
  const size_t head = std::min(input.size(), sizeof ino);
  memcpy(&ino, input.data(), head);
  const std::string_view path = input.substr(head);
  const Operation op{static_cast<int32_t>(ino), static_cast<int64_t>(ino), ino};
  const auto aggregate = static_cast<int64_t>(ino);
  const std::string text = formatListRecord(aggregate, ino, path, op);
  ListedRecord record;
  const bool can_be_listed =
      !path.empty() && path.size() < 4096 && path.find('\0') == std::string_view::npos;
  FUZZ_CHECK(parseListRecord(text, &record) == can_be_listed);
  if (!can_be_listed) return;
  FUZZ_CHECK(record.whole == text && record.aggregate == aggregate && record.ino == ino &&
             record.path == path && record.opString == formatOpString(op));
  checkBatchLine(record);
}

void batches(std::string_view input) {
  if (input.empty()) return;
  const size_t most = static_cast<uint8_t>(input[0]) % 8 + 1u;
  Batcher batcher(most);
  int64_t aggregate = 0;
  uint64_t next = 0;
  Batch batch;
  const auto take = [&] {
    while (batcher.take(&batch)) {
      FUZZ_CHECK(!batch.empty() && batch.size() <= most + 1);
      std::set<int64_t> aggregates;  // with byte ranges
      uint64_t bytes = 0;
      for (const BatchRecord &record : batch) {
        FUZZ_CHECK(std::stoull(record.line) == next++);
        bytes += record.bytes;
        if (record.bytes > 0) aggregates.insert(record.aggregate);
      }
      FUZZ_CHECK(aggregates.size() <= 1 || bytes <= kSharedBytes);
    }
  };
  for (uint64_t i = 1; i < input.size(); ++i) {
    aggregate += input[i] & 1;
    const std::string op_string = formatOpString(
        {(input[i] >> 1) & 3, 0, kSharedBytes / 16 * (static_cast<uint8_t>(input[i]) >> 3)});
    ListedRecord record;
    record.aggregate = aggregate;
    record.ino = i - 1;
    record.opString = op_string;
    batcher.add(BatchRecord(record));
    take();
  }
  batcher.finish();
  take();
  FUZZ_CHECK(next == input.size() - 1);
}

void checkpointLine(std::string_view input) {
  uint64_t ino = 0, again = 0;
  std::string_view op, op_again;
  if (!parseCheckpointLine(input, &ino, &op)) return;
  FUZZ_CHECK(!op.empty() && op.find(' ') == std::string_view::npos);
  const std::string text = formatCheckpointLine(ino, op);
  FUZZ_CHECK(parseCheckpointLine(text, &again, &op_again) && again == ino && op_again == op);
}

}  // namespace

const std::vector<Target> kRecordTargets = {
    {"list_record", listRecord}, {"op_string", opString}, {"batch_line", batchLine},
    {"record_road", recordRoad}, {"batches", batches},    {"checkpoint_line", checkpointLine}};

}  // namespace fuzz
