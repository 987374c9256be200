// The kernel threads that call the agent: for each one, whether it is inside a call and which
// context it used last. A thread finds its own record through thread-local storage, others look at
// it to learn whether a context or the whole agent is in use. Records of ended threads are taken
// over by new ones; nothing is registered with the host's threads.
#pragma once

#include <atomic>
#include <cstdint>

#include "layout/gvar.h"

namespace varn {

inline constexpr int kMaxCallers = 4096;

enum CallerState : std::uint32_t {
  kOutside = 0,
  kInCall = 1,
  kInStartStop = 2,  // TRAN_INIT and TRAN_DONE, or a change of names: not waited for by TRAN_DONE
};

struct alignas(64) Caller {
  std::atomic<std::int32_t> kernel_tid;  // 0: free
  std::atomic<std::uint32_t> state;      // CallerState
  std::atomic<std::uint32_t> hooks;      // instrumentation hooks entered and left: odd inside one
  std::atomic<MTR_CXT_VAR*> var;         // context used last, valid while claim_no is its claim's
  std::uint64_t claim_no;
  std::int64_t tid_arg;  // thread number it was asked for with; every negative one is -1
};

extern constinit thread_local Caller* my_caller;

[[gnu::cold]] Caller* claim_caller();

// The calling thread's record; null when more than kMaxCallers threads are alive.
inline Caller* this_caller() {
  Caller* const caller = my_caller;
  return caller != nullptr ? caller : claim_caller();
}

bool thread_exists(std::int32_t kernel_tid);

// Whether a thread other than `self` is inside a call and may be using the context.
bool used_inside_a_call(const MTR_CXT_VAR& var, const Caller* self);

// Waits until no thread but `self` is inside a call; false when one still is after the time.
bool wait_for_callers(const Caller* self, int milliseconds);

inline bool is_inside_hook(const Caller& caller) {
  return caller.hooks.load(std::memory_order_relaxed) % 2 != 0;
}

// Waits until every other thread has left the instrumentation hook that it was inside of at the
// call, if any.
bool wait_for_hooks(const Caller* self, int milliseconds);

// None is anybody's. A forked child does this by itself, but for the record of a thread that forked
// inside a call.
void forget_callers();

}  // namespace varn
