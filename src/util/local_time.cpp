#include "util/local_time.h"

#include <pthread.h>
#include <signal.h>

#include <initializer_list>

#include "util/cancel_guard.h"
#include "util/errno_guard.h"

namespace varn {
namespace {

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

void before_fork() { pthread_mutex_lock(&lock); }
void after_fork_in_parent() { pthread_mutex_unlock(&lock); }
void after_fork_in_child() {
  constexpr pthread_mutex_t kUnlocked = PTHREAD_MUTEX_INITIALIZER;
  lock = kUnlocked;
}

}  // namespace

bool prepare_local_time() {
  static bool prepared = false;
  if (!prepared)
    prepared = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
  return prepared;
}

struct tm local_time(time_t second) {
  const ErrnoGuard errno_kept;
  const CancelGuard not_cancelled;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigdelset(&all, fault);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_mutex_lock(&lock);
  struct tm local = {};
  localtime_r(&second, &local);
  pthread_mutex_unlock(&lock);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return local;
}

}  // namespace varn
