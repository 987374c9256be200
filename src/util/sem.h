// System V semaphores as locks between processes: member 0 of a set, 1 meaning free. Nothing here
// creates a set; sets are the collector's.
#pragma once

#include <sys/ipc.h>

namespace varn {

// The id of the set that exists under the key, or -1.
int create_sem(key_t key, int members);

int init_sem_val(int semid, int member, int value);  // 1 or -1

// Takes and gives back; with SEM_UNDO in `flags` the kernel gives back what a dying process held.
// Interrupted calls go on. 0 or -1.
int sem_lock(int semid, int member, int flags);
int sem_unlock(int semid, int member, int flags);

// As sem_lock, but gives up (-1, errno EAGAIN) after a time: the holder may have been stopped.
int sem_lock_within(int semid, int member, int flags, int milliseconds);

// Waits until the member is 0: 0, or the error number.
int sem_wait(int semid, int member);

}  // namespace varn
