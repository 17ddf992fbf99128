// The edge between C++ and the C interface.
#pragma once

#include <cerrno>
#include <new>

namespace kest {

// Runs `body`, which returns 0 or more for success or -errno, and turns the answer into the C
// interface's: the same value, or -1 with errno. Nothing is thrown across it.
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
