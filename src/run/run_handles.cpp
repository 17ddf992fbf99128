#include "run/run_handles.h"

#include <cerrno>

RunHandles handles;

void InodeCloser::operator()(kest_ifile_t *file) const {
  const int saved = errno;
  kest_iclose(file);
  errno = saved;
}

Result openInode(kest_fssnap_handle_t *fs, uint64_t ino, Inode *file, int flags) {
  file->reset(kest_iopen64(fs, ino, flags, nullptr, nullptr));
  return *file ? Result{} : failedErrno(0);
}

Result openIfThere(kest_fssnap_handle_t *fs, uint64_t ino, Inode *file, int flags) {
  const Result r = openInode(fs, ino, file, flags);
  return r.err == ENOENT ? Result{} : r;
}
