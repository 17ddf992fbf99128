#include "object/identity.h"

#include <unistd.h>
#include <algorithm>

#include "object/descriptor.h"
#include "run/work_access.h"

bool mayBecome(const struct stat &st, uint64_t ino, uint64_t uid, int64_t links) {
  if (st.st_ino == ino) return true;
  const auto names = static_cast<uint64_t>(std::max<int64_t>(links, 1));
  return (st.st_uid == geteuid() || st.st_uid == uid) && st.st_nlink <= names &&
         youngerThanWorkDirectory(st);
}

bool isMadeFor(const struct stat &st, const kest_ifile_t *snap) {
  const Descriptor fd(kest_path_descriptor(snap));
  struct stat then;
  return fd && fstat(fd.get(), &then) == 0 &&
         mayBecome(st, 0, then.st_uid, static_cast<int64_t>(then.st_nlink));
}
