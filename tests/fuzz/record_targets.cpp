// Lists, batches and checkpoints: two programs write and read them, and must agree.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "commands/ktapplypolicy/batch_file.h"
#include "commands/ktapplypolicy/batcher.h"
#include "commands/ktapplypolicy/record_list.h"
#include "fuzz/fuzz.h"
#include "record/batch_line.h"
#include "record/checkpoint.h"
#include "record/record_format.h"
#include "run/file_reader.h"
#include "run/work_file.h"

namespace fuzz {

namespace {

bool sameRecord(const kest::ListRecord &a, const kest::ListRecord &b) {
  return a.aggregate == b.aggregate && a.inode == b.inode && a.generation == b.generation &&
         a.snapshot == b.snapshot && a.path == b.path && a.operation == b.operation;
}

bool isWord(std::string_view text) {
  return !text.empty() && text.find_first_of(" \t\n\r\v\f") == std::string_view::npos;
}

// What a list may hold for the engine: a path and an operation that travel as one line.
bool canTravel(std::string_view path, std::string_view op) {
  return !path.empty() && path.size() < 4096 && path.find('\0') == std::string_view::npos &&
         op.size() <= kOpStringMax && isWord(op) && op.find('\0') == std::string_view::npos;
}

// The engine reads the list as a file in pieces, and finds the same.
void readAsFile(const std::string &file, const std::vector<kest::ListRecord> &expected, bool whole) {
  kest::RecordList list;
  FUZZ_CHECK(list.open(file) == 0);
  kest::ListRecord record;
  for (const kest::ListRecord &one : expected)
    FUZZ_CHECK(list.next(&record) == 1 && sameRecord(record, one));
  FUZZ_CHECK(list.next(&record) == (whole ? 0 : -1));
}

// The list update reads the list as a stream, and finds the same, whatever the size of its reads.
void readAsStream(const std::string &file, std::string_view text) {
  FileReader list(64);
  FUZZ_CHECK(list.open(file));
  for (size_t position = 0;;) {
    ListRecordFields there, here;
    const int rc = readListRecord(list, &there);
    if (position == text.size()) {
      FUZZ_CHECK(rc == 0);
      return;
    }
    if (!::parseListRecord(text, &position, &here) || here.whole.size() > kListRecordMax) {
      FUZZ_CHECK(rc == -1 && errno == EINVAL);
      return;
    }
    FUZZ_CHECK(rc == 1 && there.whole == here.whole && there.ino == here.ino &&
               there.path == here.path && there.opString == here.opString);
    FUZZ_CHECK(list.position() == position);
  }
}

void listRecord(std::string_view input) {
  std::vector<kest::ListRecord> engine;
  std::string problem;
  size_t at = 0;
  for (kest::ListRecord record; at < input.size();) {
    size_t problem_at = 0;
    const size_t used = kest::parseListRecord(input.substr(at), &record, &problem, &problem_at);
    if (used == 0) {
      FUZZ_CHECK(!problem.empty() && at + problem_at <= input.size());
      break;
    }
    FUZZ_CHECK(input[at + used - 1] == '\n');
    engine.push_back(record);
    at += used;
  }
  const std::string file = scratchFolder() + "/list";
  std::unique_ptr<WorkFile> out = WorkFile::open(file, WorkFile::Mode::kTruncate);
  FUZZ_CHECK(out && out->append(input) == 0 && out->close() == 0);
  readAsFile(file, engine, at == input.size());
  readAsStream(file, input);

  // The master reads no record that the engine reads otherwise.
  size_t position = 0, number = 0;
  for (ListRecordFields fields; position < input.size(); ++number) {
    const size_t before = position;
    if (!::parseListRecord(input, &position, &fields)) {
      FUZZ_CHECK(position == before);
      break;
    }
    FUZZ_CHECK(position == before + fields.whole.size() &&
               fields.whole == input.substr(before, position - before));
    const std::string again =
        formatListRecord(fields.aggregate, fields.ino, fields.path, fields.opString);
    size_t start = 0;
    ListRecordFields copy;
    FUZZ_CHECK(::parseListRecord(again, &start, &copy) && start == again.size());
    FUZZ_CHECK(copy.aggregate == fields.aggregate && copy.ino == fields.ino &&
               copy.path == fields.path && copy.opString == fields.opString);
    if (!canTravel(fields.path, fields.opString)) break;
    FUZZ_CHECK(number < engine.size() && engine[number].inode == fields.ino &&
               engine[number].aggregate == fields.aggregate && engine[number].path == fields.path &&
               engine[number].operation == fields.opString);
  }
}

void opString(std::string_view input) {
  OpString op, again;
  if (!parseOpString(input, &op)) return;
  const std::string text = formatOpString(op.opCode, op.offset, op.length, op.holeFound, op.clone);
  FUZZ_CHECK(text.size() <= kOpStringMax);
  FUZZ_CHECK(parseOpString(text, &again) && again.opCode == op.opCode && again.offset == op.offset &&
             again.length == op.length && again.holeFound == op.holeFound && again.clone == op.clone);
  kest::ListRecord record;
  record.operation = text;
  FUZZ_CHECK(record.isLargeRange() ==
             ((op.opCode == 1 || op.opCode == 2) && op.length >= kest::kLargeRange));
}

void batchLine(std::string_view input) {
  BatchLine line, again;
  if (!parseBatchLine(input, &line)) return;
  FUZZ_CHECK(line.opString.size() <= kOpStringMax && isWord(line.opString));
  kest::ListRecord record;
  record.inode = line.ino;
  record.operation = line.opString;
  record.path = line.path;
  FUZZ_CHECK(parseBatchLine(kest::formatBatchLine(record), &again));
  FUZZ_CHECK(again.ino == line.ino && again.opString == line.opString && again.path == line.path);
}

// Master to engine to worker: whatever a path holds, the worker gets it.
void recordRoad(std::string_view input) {
  uint64_t ino = 0;
  const size_t head = std::min(input.size(), sizeof ino);
  memcpy(&ino, input.data(), head);
  const std::string_view path = input.substr(head);
  const std::string op = formatOpString(static_cast<int32_t>(ino), static_cast<int64_t>(ino), ino);
  if (!canTravel(path, op)) return;
  const std::string text = formatListRecord(static_cast<int64_t>(ino), ino, path, op);
  kest::ListRecord record;
  std::string problem;
  size_t problem_at = 0;
  FUZZ_CHECK(kest::parseListRecord(text, &record, &problem, &problem_at) == text.size());
  const std::string line = kest::formatBatchLine(record);
  FUZZ_CHECK(line.size() < kBatchLineMax && line.find('\n') == line.size() - 1);
  BatchLine read;
  FUZZ_CHECK(parseBatchLine(line, &read));
  FUZZ_CHECK(read.ino == ino && read.path == path && read.opString == op);
}

void batches(std::string_view input) {
  if (input.empty()) return;
  const size_t most = static_cast<uint8_t>(input[0]) % 8 + 1u;
  kest::Batcher batcher(most);
  int64_t aggregate = 0;
  uint64_t next = 0;
  kest::Batch batch;
  const auto take = [&] {
    while (batcher.take(&batch)) {
      FUZZ_CHECK(!batch.empty() && batch.size() <= most + 1);
      int64_t ranges = -1;  // aggregate of the byte ranges in it
      for (const kest::ListRecord &record : batch) {
        FUZZ_CHECK(record.inode == next++);
        if (!record.isLargeRange()) continue;
        FUZZ_CHECK(ranges < 0 || ranges == record.aggregate);
        ranges = record.aggregate;
      }
    }
  };
  for (uint64_t i = 1; i < input.size(); ++i) {
    aggregate += input[i] & 1;
    kest::ListRecord record;
    record.aggregate = aggregate;
    record.inode = i - 1;
    record.operation = formatOpString((input[i] >> 1) & 3, 0,
                                      kest::kLargeRange - 16 + (static_cast<uint8_t>(input[i]) >> 3));
    batcher.add(record);
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
