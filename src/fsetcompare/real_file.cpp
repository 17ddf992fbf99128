#include "fsetcompare/real_file.h"

#include <fcntl.h>

#include <cerrno>

#include "base/fd_path.h"
#include "base/leases.h"

Result openForReading(const kest_ifile_t *file, UniqueFd *fd) {
  const UniqueFd object(kest_path_descriptor(file));
  if (!object) return failedErrno(0);
  const auto open = [&](int flags) {
    return openPastLeases([&](int waiting) { return reopen(object.get(), flags | waiting); });
  };
  fd->reset(open(O_RDONLY | O_NOATIME));
  // O_NOATIME needs ownership of the file or CAP_FOWNER, which a comparison does not demand.
  if (!*fd && errno == EPERM) fd->reset(open(O_RDONLY));
  return *fd ? Result{} : failedErrno(0);
}
