#include "engine/batch_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "formats/work_names.h"

namespace {

// A killed engine with the same process ID can have left files, but hardly this many for one number.
constexpr int kNameTries = 1000;

Result writeBatch(UniqueFd fd, const Batch &batch) {
  std::string text;
  for (const BatchRecord &record : batch) text += record.line;
  if (Result r = writeAll(fd.get(), text); !r) return r;
  // Some file systems report a full disk only at the close.
  return called(close(fd.release()));
}

}  // namespace

Result BatchFile::create(const RunDirectory &directory, uint64_t number, const Batch &batch) {
  UniqueFd fd;
  std::string path;
  Result r = errnoResult(EEXIST);
  for (int attempt = 0; attempt < kNameTries && r.err == EEXIST; ++attempt) {
    path = directory.path() + "/" + batchName(getpid(), number, attempt);
    r = directory.openFile(path, O_WRONLY | O_CREAT | O_EXCL, &fd);
  }
  if (!r) return r;
  path_ = path;
  directory_ = &directory;
  r = writeBatch(std::move(fd), batch);
  if (!r) remove();
  return r;
}

void BatchFile::remove() {
  if (!path_.empty()) directory_->remove(path_);
  path_.clear();
}
