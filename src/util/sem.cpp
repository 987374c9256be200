#include "util/sem.h"

#include <sys/sem.h>

#include <cerrno>
#include <ctime>

namespace varn {
namespace {

int sem_step(int semid, int member, int step, int flags, const timespec* limit) {
  sembuf op = {static_cast<unsigned short>(member), static_cast<short>(step),
               static_cast<short>(flags)};
  for (;;) {
    const int rc = limit == nullptr ? semop(semid, &op, 1) : semtimedop(semid, &op, 1, limit);
    if (rc == 0 || errno != EINTR) return rc;
  }
}

}  // namespace

int create_sem(key_t key, int members) { return semget(key, members, 0666); }

int init_sem_val(int semid, int member, int value) {
  return semctl(semid, member, SETVAL, value) < 0 ? -1 : 1;
}

int sem_lock(int semid, int member, int flags) {
  return sem_step(semid, member, -1, flags, nullptr);
}

int sem_unlock(int semid, int member, int flags) {
  return sem_step(semid, member, 1, flags, nullptr);
}

int sem_lock_within(int semid, int member, int flags, int milliseconds) {
  const timespec limit = {milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
  return sem_step(semid, member, -1, flags, &limit);
}

int sem_wait(int semid, int member) {
  return sem_step(semid, member, 0, 0, nullptr) == 0 ? 0 : errno;
}

}  // namespace varn
