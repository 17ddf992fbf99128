#include "run/run_handles.h"

#include <cerrno>

RunHandles handles;

void InodeCloser::operator()(kest_ifile_t *file) const {
  const int saved = errno;
  kest_iclose(file);
  errno = saved;
}

Result takeInode(kest_fssnap_handle_t *fs, UniqueFd *fd, Inode *file) {
  file->reset(kest_iopen_fd(fs, fd->get()));
  if (!*file) return failedErrno(0);
  fd->release();
  return {};
}

Result openInode(kest_fssnap_handle_t *fs, uint64_t ino, Inode *file, int flags) {
  file->reset(kest_iopen64(fs, ino, flags, nullptr, nullptr));
  return *file ? Result{} : failedErrno(0);
}

Result openIfThere(kest_fssnap_handle_t *fs, uint64_t ino, Inode *file, int flags) {
  const Result r = openInode(fs, ino, file, flags);
  return r.err == ENOENT ? Result{} : r;
}
