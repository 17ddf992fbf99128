#include "object/identity.h"

#include <unistd.h>
#include <algorithm>

#include "run/work_access.h"

bool mayBecome(const struct stat &st, uint64_t ino, const kest_iattr64_t &attr) {
  if (st.st_ino == ino) return true;
  const auto names = static_cast<uint64_t>(std::max<int64_t>(attr.ia_nlink, 1));
  return (st.st_uid == geteuid() || st.st_uid == attr.ia_uid) && st.st_nlink <= names &&
         youngerThanWorkDirectory(st);
}

bool isMadeFor(const struct stat &st, const kest_ifile_t *snap) {
  kest_iattr64_t attr;
  return kest_istat(snap, &attr) == 0 && mayBecome(st, 0, attr);
}
