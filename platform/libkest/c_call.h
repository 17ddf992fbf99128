// The border between C++ and the C interface.
#pragma once

#include <cerrno>
#include <new>

namespace kest {

// Runs `body`, which returns 0 or more for success, else -errno. Returns the same value for success, or
// -1 and errno. No exception crosses the border.
template <typename Body>
auto cCall(Body body) noexcept -> decltype(body()) {
  decltype(body()) rc = -EIO;
  try {
    rc = body();
  } catch (const std::bad_alloc &) {
    rc = -ENOMEM;
  } catch (...) {
  }
  if (rc >= 0) return rc;
  errno = static_cast<int>(-rc);
  return -1;
}

}  // namespace kest
