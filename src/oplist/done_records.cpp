#include "oplist/done_records.h"

#include <algorithm>

bool makeRecordKey(uint64_t ino, std::string_view opString, RecordKey *key) {
  OpString op;
  if (!parseOpString(opString, &op)) return false;
  for (const int32_t number : {op.opCode, op.holeFound, op.clone})
    if (number < 0 || number > UINT8_MAX) return false;
  *key = {ino,
          op.offset,
          op.length,
          static_cast<uint8_t>(op.opCode),
          static_cast<uint8_t>(op.holeFound),
          static_cast<uint8_t>(op.clone)};
  return true;
}

void DoneRecords::sort() {
  std::sort(entries_.begin(), entries_.end());
  entries_.erase(std::unique(entries_.begin(), entries_.end()), entries_.end());
}

const DoneRecords::Entry *DoneRecords::find(const RecordKey &key) const {
  const auto found = std::lower_bound(entries_.begin(), entries_.end(), key);
  return found != entries_.end() && *found == key ? &*found : nullptr;
}

void DoneRecords::count(const RecordKey &key) {
  const Entry *entry = find(key);
  if (entry && entry->in_list < 2) ++const_cast<Entry *>(entry)->in_list;
}

bool DoneRecords::isDone(const RecordKey &key) const {
  const Entry *entry = find(key);
  return entry && entry->in_list == 1;
}
