#include "libkest/kept_capability.h"

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

}  // namespace kest
