#include "filesystem/file_system.h"

namespace kest {

int Inode::setExactMode(mode_t mode) {
  constexpr mode_t kModeBits = 07777;
  struct stat st;
  if (int rc = stat(&st); rc != 0) return rc;
  if (((st.st_mode ^ mode) & kModeBits) == 0) return 0;
  return changeMode(mode & kModeBits);
}

}  // namespace kest
