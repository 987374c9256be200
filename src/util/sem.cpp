#include "util/sem.h"

#include <sys/sem.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

namespace varn {
namespace {

constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kNsPerSec = 1'000'000'000;

sembuf operation(int member, int step, int flags) {
  return {static_cast<unsigned short>(member), static_cast<short>(step), static_cast<short>(flags)};
}

int sem_step(int semid, int member, int step, int flags) {
  sembuf op = operation(member, step, flags);
  for (;;) {
    const int rc = semop(semid, &op, 1);
    if (rc == 0 || errno != EINTR) return rc;
  }
}

std::int64_t monotonic_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNsPerSec + now.tv_nsec;
}

}  // namespace

int create_sem(key_t key, int members) { return semget(key, members, 0666); }

int init_sem_val(int semid, int member, int value) {
  return semctl(semid, member, SETVAL, value) < 0 ? -1 : 1;
}

int sem_lock(int semid, int member, int flags) { return sem_step(semid, member, -1, flags); }

int sem_unlock(int semid, int member, int flags) { return sem_step(semid, member, 1, flags); }

int sem_lock_within(int semid, int member, int flags, int milliseconds) {
  sembuf op = operation(member, -1, flags);
  const std::int64_t end = monotonic_ns() + milliseconds * kNsPerMs;
  for (;;) {
    // A host with a busy timer interrupts every wait: only what is left is waited for again.
    const std::int64_t left = std::max<std::int64_t>(end - monotonic_ns(), 0);
    const timespec limit = {left / kNsPerSec, left % kNsPerSec};
    const int rc = semtimedop(semid, &op, 1, &limit);
    if (rc == 0 || errno != EINTR) return rc;
    if (left == 0) {
      errno = EAGAIN;
      return -1;
    }
  }
}

int sem_wait(int semid, int member) { return sem_step(semid, member, 0, 0) == 0 ? 0 : errno; }

}  // namespace varn
