// Leaves errno as it was: it is the host's. Stands around whatever may set it, not around every
// call, since even to look where errno lies costs a call.
#pragma once

#include <cerrno>

namespace varn {

class [[nodiscard]] ErrnoGuard {
 public:
  ErrnoGuard() = default;
  ~ErrnoGuard() { *place_ = saved_; }
  ErrnoGuard(const ErrnoGuard&) = delete;
  ErrnoGuard& operator=(const ErrnoGuard&) = delete;

 private:
  int* const place_ = &errno;
  const int saved_ = *place_;
};

}  // namespace varn
