// Keeps a thread from being cancelled half-way through what must be left tidy. The host may cancel
// its threads; without exceptions, nothing of ours would be unwound.
#pragma once

#include <pthread.h>

namespace varn {

class [[nodiscard]] CancelGuard {
 public:
  CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~CancelGuard() { pthread_setcancelstate(before_, nullptr); }
  CancelGuard(const CancelGuard&) = delete;
  CancelGuard& operator=(const CancelGuard&) = delete;

 private:
  int before_ = 0;
};

}  // namespace varn
