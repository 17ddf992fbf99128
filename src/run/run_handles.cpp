#include "run/run_handles.h"

#include <cerrno>

RunHandles handles;

void InodeCloser::operator()(kest_ifile_t *file) const {
  const int saved = errno;
  kest_iclose(file);
  errno = saved;
}

Inode takeInode(kest_fssnap_handle_t *fs, Descriptor *fd) {
  Inode file(kest_iopen_fd(fs, fd->get()));
  if (file) fd->release();
  return file;
}

Inode openInode(kest_fssnap_handle_t *fs, uint64_t ino, int flags) {
  return Inode(kest_iopen64(fs, ino, flags, nullptr, nullptr));
}
