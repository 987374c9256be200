#include "util/quiet_write.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace varn {

// Both signals go to the thread that writes: what it did not have pending before is taken back.
ssize_t write_quietly(int fd, const void* bytes, std::size_t size) {
  sigset_t raised;
  sigset_t before;
  sigset_t pending;
  sigemptyset(&pending);
  sigemptyset(&raised);
  sigaddset(&raised, SIGPIPE);
  sigaddset(&raised, SIGXFSZ);
  pthread_sigmask(SIG_BLOCK, &raised, &before);
  sigpending(&pending);
  const ssize_t written = write(fd, bytes, size);
  const int error = errno;
  if (written < 0 && (error == EPIPE || error == EFBIG)) {
    const int signal = error == EPIPE ? SIGPIPE : SIGXFSZ;
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, signal);
    constexpr timespec kAtOnce = {0, 0};
    if (sigismember(&pending, signal) == 0) sigtimedwait(&own, nullptr, &kAtOnce);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return written;
}

}  // namespace varn
