#include "driver/dir_records.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "record/record_format.h"
#include "run/trace_log.h"
#include "run/work_file.h"

int takeDirRecords(const std::string &from, const std::string &to) {
  std::string text;
  if (!readWholeFile(from, &text)) return errno;
  std::unique_ptr<WorkFile> list = WorkFile::open(to, WorkFile::Mode::kTruncate);
  if (!list) return errno;
  std::set<std::pair<uint64_t, std::string_view>> taken;
  size_t position = 0;
  while (position < text.size()) {
    ListRecordFields record;
    if (!parseListRecord(text, &position, &record)) {
      traceLog("Main: invalid record at byte %zu of %s\n", position, from.c_str());
      return EIO;
    }
    if (taken.emplace(record.ino, record.path).second && list->append(record.whole) != 0) return errno;
  }
  int rc = 0;
  closeWorkFile(list, to, &rc);
  if (rc == 0 && unlink(from.c_str()) != 0) rc = errno;
  return rc;
}
