#include "fsetcompare/real_file.h"

#include <fcntl.h>

#include <cerrno>

#include "base/fd_path.h"

Result openForReading(const kest_ifile_t *file, UniqueFd *fd) {
  const UniqueFd object(kest_path_descriptor(file));
  if (!object) return failedErrno(0);
  constexpr int kFlagsToRead = O_RDONLY | O_NONBLOCK;
  fd->reset(reopen(object.get(), kFlagsToRead | O_NOATIME));
  if (!*fd && errno == EPERM) fd->reset(reopen(object.get(), kFlagsToRead));
  return *fd ? Result{} : failedErrno(0);
}
