#include "object/object_stat.h"

#include <unistd.h>
#include <cerrno>
#include <climits>

#include "object/temp_place.h"
#include "run/descriptor.h"
#include "run/path.h"
#include "run/run_handles.h"

namespace {

// Either root can lie below the other: the longer one that matches is the nearer.
kest_fssnap_handle_t *handleOf(const std::string &path) {
  const std::string &snap = handles.snapRootPath, &active = handles.rootPath;
  if (snap.empty() || !liesIn(path, snap)) return handles.activeFsP;
  return liesIn(path, active) && active.size() > snap.size() ? handles.activeFsP : handles.oldFsP;
}

}  // namespace

int statPath(const std::string &path, struct stat *st) {
  const std::string now = linkFree(path);
  return kest_lstat(handleOf(now), now.c_str(), st);
}

int openObject(const std::string &path) {
  const std::string now = linkFree(path);
  return kest_open_path(handleOf(now), now.c_str());
}

int readLinkTarget(const std::string &path, std::string *target) {
  Descriptor fd(openObject(path));
  if (!fd) return -1;
  struct stat st;
  if (fstat(fd.get(), &st) != 0) return -1;
  if (!S_ISLNK(st.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  target->resize(PATH_MAX);  // no link is longer
  const ssize_t length = readlinkat(fd.get(), "", target->data(), target->size());
  if (length < 0) return -1;
  target->resize(static_cast<size_t>(length));
  return 0;
}
