#include "core/caller.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "util/fence.h"

namespace varn {
namespace {

constinit Caller callers[kMaxCallers] = {};
std::atomic<std::uint32_t> next_caller;   // where the search for a free record begins
std::atomic<std::uint32_t> callers_ever;  // records behind this one were never anybody's

// Whether its thread is inside a call. A thread that was cancelled there never left it, but is
// gone.
bool is_inside(const Caller& caller) {
  return caller.state.load(std::memory_order_acquire) == kInCall &&
         thread_exists(caller.kernel_tid.load(std::memory_order_relaxed));
}

void note_used(std::uint32_t place) {
  std::uint32_t ever = callers_ever.load(std::memory_order_relaxed);
  while (ever <= place &&
         !callers_ever.compare_exchange_weak(ever, place + 1, std::memory_order_relaxed)) {
  }
}

bool take_over(Caller& caller, std::int32_t kernel_tid) {
  std::int32_t owner = caller.kernel_tid.load(std::memory_order_relaxed);
  // This thread has no record: one with its id is that of an ended thread that had the id before.
  if (owner != 0 && owner != kernel_tid && thread_exists(owner)) return false;
  if (!caller.kernel_tid.compare_exchange_strong(owner, kernel_tid, std::memory_order_acq_rel))
    return false;
  // What the ended thread did comes before what this one does, and before what others learn from
  // it.
  static_cast<void>(caller.state.load(std::memory_order_acquire));
  caller.state.store(kOutside, std::memory_order_release);
  caller.hooks.store(0, std::memory_order_release);
  caller.var.store(nullptr, std::memory_order_relaxed);
  return true;
}

// Only the forking thread lives on in the child, under another number. A fork from a signal handler
// inside a call returns into that call, whose record stays.
void after_fork_in_child() {
  if (my_caller != nullptr && my_caller->state.load(std::memory_order_relaxed) != kOutside)
    my_caller->kernel_tid.store(gettid(), std::memory_order_relaxed);
  else
    forget_callers();
}

// Whoever has a record may fork, also long before the agent is started.
void prepare_forks() {
  static std::atomic<bool> prepared{false};
  if (prepared.exchange(true)) return;
  if (pthread_atfork(nullptr, nullptr, after_fork_in_child) != 0) prepared.store(false);
}

}  // namespace

constinit thread_local Caller* my_caller = nullptr;

Caller* claim_caller() {
  // Where all records are taken, a search of them all is made once a second, not at every call.
  static std::atomic<std::int64_t> full_in;
  const std::int64_t second = time(nullptr);
  if (full_in.load(std::memory_order_relaxed) == second) return nullptr;

  const int saved_errno = errno;
  const std::int32_t kernel_tid = gettid();
  const std::uint32_t first = next_caller.fetch_add(1, std::memory_order_relaxed);
  Caller* claimed = nullptr;
  for (std::uint32_t n = 0; n < kMaxCallers && claimed == nullptr; ++n) {
    const std::uint32_t place = (first + n) % kMaxCallers;
    if (!take_over(callers[place], kernel_tid)) continue;
    claimed = &callers[place];
    note_used(place);
  }
  if (claimed == nullptr) full_in.store(second, std::memory_order_relaxed);
  my_caller = claimed;
  prepare_forks();
  errno = saved_errno;
  return claimed;
}

bool thread_exists(std::int32_t kernel_tid) {
  return kernel_tid > 0 && (tgkill(getpid(), kernel_tid, 0) == 0 || errno != ESRCH);
}

bool used_inside_a_call(const MTR_CXT_VAR& var, const Caller* self) {
  heavy_fence();
  // Every state is read, so that all that ended threads did comes before what follows.
  const std::uint32_t ever = callers_ever.load(std::memory_order_relaxed);
  for (std::uint32_t n = 0; n < ever; ++n)
    if (&callers[n] != self && is_inside(callers[n]) &&
        callers[n].var.load(std::memory_order_relaxed) == &var)
      return true;
  return false;
}

bool wait_for_callers(const Caller* self, int milliseconds) {
  heavy_fence();
  const std::uint32_t ever = callers_ever.load(std::memory_order_relaxed);
  for (std::uint32_t n = 0; n < ever; ++n) {
    while (&callers[n] != self && is_inside(callers[n])) {
      if (milliseconds-- <= 0) return false;
      usleep(1000);
    }
  }
  return true;
}

bool wait_for_hooks(const Caller* self, int milliseconds) {
  constexpr int kQuickLooks = 1000;  // a hook is left sooner than a sleep would end
  heavy_fence();
  const std::uint32_t ever = callers_ever.load(std::memory_order_relaxed);
  for (std::uint32_t n = 0; n < ever; ++n) {
    const Caller& caller = callers[n];
    const std::uint32_t hooks = caller.hooks.load(std::memory_order_acquire);
    if (&caller == self || hooks % 2 == 0) continue;
    for (int looks = 0; caller.hooks.load(std::memory_order_acquire) == hooks; ++looks) {
      if (looks < kQuickLooks) {
        sched_yield();
        continue;
      }
      if (!thread_exists(caller.kernel_tid.load(std::memory_order_relaxed))) break;
      if (milliseconds-- <= 0) return false;
      usleep(1000);
    }
  }
  return true;
}

void forget_callers() {
  for (Caller& caller : callers) {
    if (caller.kernel_tid.load(std::memory_order_relaxed) == 0) continue;  // its page stays shared
    caller.kernel_tid.store(0, std::memory_order_relaxed);
    caller.state.store(kOutside, std::memory_order_relaxed);
    caller.var.store(nullptr, std::memory_order_relaxed);
  }
  next_caller.store(0, std::memory_order_relaxed);
  my_caller = nullptr;
}

}  // namespace varn
