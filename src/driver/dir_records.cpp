#include "driver/dir_records.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "record/record_format.h"
#include "run/trace_log.h"
#include "run/work_access.h"
#include "run/work_file.h"

namespace {

using Position = uint64_t;
using HashAt = std::pair<size_t, Position>;
using Identity = std::pair<uint64_t, std::string>;  // inode number and path

int invalidRecord(const FileReader &list, const std::string &from) {
  const int err = errno;
  traceLog("Main: invalid record at byte %llu of %s\n",
           static_cast<unsigned long long>(list.position()), from.c_str());
  return err == EINVAL ? EIO : err;
}

// Calls visit(record, position) for every record. 0 or an errno, also of visit.
template <typename Visitor>
int forEachRecord(const std::string &from, Visitor visit) {
  FileReader list;
  if (!list.open(from)) return errno;
  for (;;) {
    const Position position = list.position();
    ListRecordFields record;
    const int got = readListRecord(list, &record);
    if (got == 0) return 0;
    if (got < 0) return invalidRecord(list, from);
    if (const int err = visit(record, position)) return err;
  }
}

size_t hashOf(const ListRecordFields &record) {
  return std::hash<std::string_view>()(record.path) ^ (record.ino * 0x9e3779b97f4a7c15u);
}

// Adds, of records with one hash, those that say what an earlier one says.
int addRepeated(FileReader &list, std::span<const HashAt> alike, std::vector<Position> *repeated) {
  std::vector<Identity> seen;
  for (const auto &[hash, position] : alike) {
    list.seek(position);
    ListRecordFields record;
    if (readListRecord(list, &record) <= 0) return errno ? errno : EIO;
    Identity identity(record.ino, record.path);
    if (std::find(seen.begin(), seen.end(), identity) != seen.end()) {
      repeated->push_back(position);
    } else {
      seen.push_back(std::move(identity));
    }
  }
  return 0;
}

// Positions, in order, of the records that say what an earlier one says. Takes 16 bytes a record.
int findRepeated(const std::string &from, std::vector<Position> *repeated) {
  std::vector<HashAt> hashes;
  const auto note = [&hashes](const ListRecordFields &record, Position position) {
    hashes.emplace_back(hashOf(record), position);
    return 0;
  };
  if (const int err = forEachRecord(from, note)) return err;
  std::sort(hashes.begin(), hashes.end());
  FileReader list(kListRecordMax);
  if (!list.open(from)) return errno;
  for (size_t first = 0, last; first < hashes.size(); first = last) {
    for (last = first + 1; last < hashes.size() && hashes[last].first == hashes[first].first;) ++last;
    if (last - first == 1) continue;
    const std::span alike(&hashes[first], last - first);
    if (const int err = addRepeated(list, alike, repeated)) return err;
  }
  std::sort(repeated->begin(), repeated->end());
  return 0;
}

}  // namespace

int takeDirRecords(const std::string &from, const std::string &to) {
  std::vector<Position> repeated;
  if (const int err = findRepeated(from, &repeated)) return err;
  std::unique_ptr<WorkFile> list = WorkFile::open(to, WorkFile::Mode::kTruncate);
  if (!list) return errno;
  const auto take = [&](const ListRecordFields &record, Position position) {
    if (std::binary_search(repeated.begin(), repeated.end(), position)) return 0;
    return list->append(record.whole) == 0 ? 0 : errno;
  };
  if (const int err = forEachRecord(from, take)) return err;
  int rc = 0;
  closeWorkFile(list, to, &rc);
  if (rc == 0 && unlinkWorkFile(from) != 0) rc = errno;
  return rc;
}
