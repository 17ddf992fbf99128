#include "record/side_list.h"

#include <cerrno>

#include "record/record_format.h"
#include "run/progress.h"
#include "run/settings.h"
#include "run/work_file.h"

int appendSideRecord(const std::string &list_path, const std::string &close_name, uint64_t ino,
                     std::string_view path, OpCode op, AggregateCounter &counter, bool *opened) {
  std::unique_ptr<WorkFile> list = WorkFile::open(list_path, WorkFile::Mode::kShared);
  *opened = list != nullptr;
  if (!list) return errno;
  AggregateCounter next = counter;
  next.countRecord(settings.unitSize);
  if (writeListRecord(*list, next.iAgg, ino, path, formatOpString(op)) != 0) return errno;
  counter = next;
  reportOpCount(false);
  int rc = 0;
  closeWorkFile(list, close_name, &rc);
  return rc;
}
