#include "libkest/lifted_flags.h"

#include <cerrno>

#include <sys/stat.h>

namespace kest {

LiftedFlags::~LiftedFlags() {
  int saved = errno;
  setAgain();
  errno = saved;
}

int LiftedFlags::lift(Protection afterwards) {
  if (int rc = inode_.writeProtection({}); rc != 0) return rc;
  lifted_ = true;
  afterwards_ = afterwards;
  return 0;
}

int LiftedFlags::setAgain() {
  if (!lifted_) return 0;
  lifted_ = false;
  struct stat st;
  if (int rc = inode_.stat(&st); rc != 0) return rc;
  return st.st_nlink == 0 ? 0 : inode_.writeProtection(afterwards_);
}

}  // namespace kest
