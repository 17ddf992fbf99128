#include "libkest/kept_attributes.h"

#include <sys/stat.h>

#include <cerrno>
#include <utility>

namespace kest {

namespace {
constexpr char kCapability[] = "security.capability";
}

int KeptCapability::save(Inode &inode) {
  if (known_) return 0;
  std::string value;
  const int rc = inode.readXattr(kCapability, &value);
  if (rc < 0 && rc != -ENODATA && rc != -EOPNOTSUPP) return rc;
  if (rc == 0) value_ = std::move(value);
  known_ = true;
  return 0;
}

void KeptCapability::replace(const std::string *capability) {
  known_ = true;
  value_.reset();
  if (capability != nullptr) value_ = *capability;
}

int KeptCapability::putBack(Inode &inode) const {
  return value_ ? inode.writeXattr(kCapability, *value_) : 0;
}

int KeptCapability::putBackIfLost(Inode &inode) const {
  std::string now;
  if (!value_ || (inode.readXattr(kCapability, &now) == 0 && now == *value_)) return 0;
  return putBack(inode);
}

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
