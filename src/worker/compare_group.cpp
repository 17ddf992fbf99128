#include "worker/compare_group.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "formats/work_names.h"
#include "run/node.h"
#include "run/run_handles.h"
#include "run/trace_log.h"
#include "run/work_dir.h"

namespace {

// Flush the part to disk before it gets its name: if this node is lost, data that is only in its memory
// is lost with it.
Result writePart(const Record &record, const std::string &path) {
  UniqueFd directories, part;
  if (Result r = openWorkFile(record.path, O_RDONLY, &directories); !r) return r;
  if (Result r = openWorkFile(path, O_WRONLY | O_CREAT | O_TRUNC, &part); !r) return r;
  const kest_group_t group{static_cast<uint64_t>(record.op.offset),
                           static_cast<uint64_t>(record.op.offset) + record.op.length};
  if (Result r = called(kest_compare_group(handles.iscanP, directories.get(), &group, part.get())); !r)
    return r;
  if (Result r = called(fsync(part.get())); !r) return r;
  return called(close(part.release()));
}

}  // namespace

Result compareGroup(const Record &record) {
  const std::string part = scanPartName(record.path, record.ino);
  const std::string unfinished = unfinishedPartName(part, hostName(), callerNumber());
  Result r = writePart(record, unfinished);
  if (r) r = renameWorkFile(unfinished, part);
  if (!r) (void)unlinkWorkFile(unfinished);
  traceLog("compareGroup: group %lld, rc %d, err %d\n", static_cast<long long>(record.ino), r.rc,
           r.err);
  return r;
}
