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

Result openSnapshotInode(uint64_t ino, const std::string &path, Inode *file) {
  const std::string &root = handles.rootPath;
  const bool below = path.size() > root.size() && path.starts_with(root);
  const char *link = below ? path.c_str() + root.size() : nullptr;
  file->reset(kest_iopen64(handles.oldFsP, ino, 0, nullptr, link));
  return *file ? Result{} : failedErrno(0);
}

Result openIfThere(kest_fssnap_handle_t *fs, uint64_t ino, Inode *file, int flags) {
  const Result r = openInode(fs, ino, file, flags);
  return r.err == ENOENT ? Result{} : r;
}
