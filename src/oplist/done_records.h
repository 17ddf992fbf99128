// The records that checkpoints show as done. 32 bytes each, without a limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "record/record_format.h"

// What a checkpoint tells of a record. Two records of a list can look alike in it.
struct RecordKey {
  uint64_t ino = 0;
  int64_t offset = 0;
  uint64_t length = 0;
  uint8_t opCode = 0, holeFound = 0, clone = 0;

  auto operator<=>(const RecordKey &) const = default;
};

// False when the op string names no operation.
bool makeRecordKey(uint64_t ino, std::string_view opString, RecordKey *key);

// First every add, then sort, then every count, then isDone.
class DoneRecords {
 public:
  // Room for `records` of them; memory is taken as they come.
  void reserve(size_t records) { entries_.reserve(records); }
  void add(const RecordKey &key) { entries_.push_back({{key}, 0}); }
  void sort();
  // A record of the list.
  void count(const RecordKey &key);
  // True when it was performed, which is only known where no other record of the list looks like it.
  bool isDone(const RecordKey &key) const;

  template <typename Visitor>
  void visit(Visitor visitor) const {
    for (const Entry &entry : entries_) visitor(static_cast<const RecordKey &>(entry));
  }

 private:
  struct Entry : RecordKey {
    uint8_t in_list = 0;  // records of the list, 2 for more
  };
  static_assert(sizeof(Entry) == 32);
  const Entry *find(const RecordKey &key) const;

  std::vector<Entry> entries_;
};
