#include <dlfcn.h>

#include <cerrno>

#include "unit/support/real_fileset.h"

std::function<int(const std::string &call)> refusal;

namespace {

template <typename... Arguments>
int call(const char *name, Arguments... arguments) {
  if (const int err = refusal ? refusal(name) : 0) {
    errno = err;
    return -1;
  }
  return reinterpret_cast<int (*)(Arguments...)>(dlsym(RTLD_NEXT, name))(arguments...);
}

}  // namespace

int kest_fcntl(int fd, void *request) {
  return call("kest_fcntl", fd, request);
}
int kest_carries_clone(kest_fssnap_handle_t *fs, const char *path) {
  return call("kest_carries_clone", fs, path);
}
int kest_unlink(kest_fssnap_handle_t *fs, const char *path, uint64_t ino) {
  return call("kest_unlink", fs, path, ino);
}
int kest_rmdir(kest_fssnap_handle_t *fs, const char *path, uint64_t ino) {
  return call("kest_rmdir", fs, path, ino);
}
int kest_rename_noreplace(kest_fssnap_handle_t *fs, const char *path, const char *to, uint64_t i) {
  return call("kest_rename_noreplace", fs, path, to, i);
}
