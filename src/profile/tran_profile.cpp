// Functions traced through the compiler's instrumentation: the list of their names, and the hooks
// that instrumented code calls.
//
// Hooks look names up in every thread at any time and wait for nobody. So the list stands twice:
// they read one side while the other is changed; then the sides change places, and once no hook
// can still be at the old one, that is changed too.
#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/call.h"
#include "core/caller.h"
#include "core/tran_ex.h"
#include "util/cancel_guard.h"
#include "util/console.h"
#include "util/errno_guard.h"
#include "util/fence.h"
#include "varn/tran.h"

// A host is not ended because a name could not be kept.
#define HASH_NONFATAL_OOM 1
#include <uthash.h>

namespace varn {
namespace {

constexpr int kHookWaitMs = 1000;
constexpr int kIndent = 2;

struct Profile {
  std::uint64_t func_addr;
  char* name;
  int name_len;
  UT_hash_handle hh[2];  // its place on each side
};

Profile* func_lists[2];
std::atomic<int> active_side;  // the one that hooks read
// Columns by which the printed call tree is indented. All threads share it, so it is left alone
// where nothing is printed.
std::atomic<int> depth;

// Refuses its own thread: an allocator that calls back in must not wait for itself.
pthread_mutex_t list_lock = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
std::atomic<bool> changing;  // the side that is not active is half-way changed
bool frozen;                 // the sides differ and cannot be made equal: names stay as they are

// ---- The list ----

Profile* find(int side, std::uint64_t func_addr) {
  Profile* found = nullptr;
  HASH_FIND(hh[side], func_lists[side], &func_addr, sizeof func_addr, found);
  return found;
}

// False without memory for it.
bool insert(int side, Profile* profile) {
  HASH_ADD(hh[side], func_lists[side], func_addr, sizeof profile->func_addr, profile);
  return profile->hh[side].tbl != nullptr;
}

void remove(int side, Profile* profile) { HASH_DELETE(hh[side], func_lists[side], profile); }

// Makes a changed side the one that hooks read. True once the other side is nobody's.
bool publish(int side, const Caller& self) {
  active_side.store(side, std::memory_order_release);
  changing.store(false, std::memory_order_relaxed);
  if (wait_for_hooks(&self, kHookWaitMs)) return true;
  frozen = true;
  return false;
}

void free_profile(Profile* profile) {
  if (profile == nullptr) return;
  std::free(profile->name);
  std::free(profile);
}

Profile* new_profile(std::uint64_t func_addr, const char* func_name) {
  auto* const profile = static_cast<Profile*>(std::calloc(1, sizeof(Profile)));
  if (profile == nullptr) return nullptr;
  profile->func_addr = func_addr;
  profile->name = strdup(func_name);
  profile->name_len = static_cast<int>(std::strlen(func_name));
  if (profile->name != nullptr) return profile;
  free_profile(profile);
  return nullptr;
}

// The thread that forked may have interrupted another's change, or be in the middle of its own.
void after_fork_in_child() {
  if (changing.load(std::memory_order_relaxed)) frozen = true;
  constexpr pthread_mutex_t kUnlocked = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
  list_lock = kUnlocked;
}

// The right to change the list; not to be had inside a hook, whose name could go under its hands.
class [[nodiscard]] ListGuard {
 public:
  ListGuard() : self_(this_caller()) {
    if (self_ == nullptr || is_inside_hook(*self_)) return;
    if (pthread_mutex_lock(&list_lock) != 0) return;
    locked_ = true;
    if (!prepared_) {
      prepare_heavy_fence();
      prepared_ = pthread_atfork(nullptr, nullptr, after_fork_in_child) == 0;
    }
  }
  ~ListGuard() {
    if (locked_) pthread_mutex_unlock(&list_lock);
  }
  ListGuard(const ListGuard&) = delete;
  ListGuard& operator=(const ListGuard&) = delete;

  bool may_change() const { return locked_ && !frozen; }
  const Caller& self() const { return *self_; }

 private:
  inline static bool prepared_ = false;
  Caller* const self_;
  bool locked_ = false;
};

// Whether the entry is the list's now.
bool add_profile(Profile* profile) {
  const ListGuard guard;
  if (!guard.may_change()) return false;
  const int active = active_side.load(std::memory_order_relaxed);
  const int idle = 1 - active;
  if (find(idle, profile->func_addr) != nullptr) return false;
  changing.store(true, std::memory_order_relaxed);
  if (!insert(idle, profile)) {
    changing.store(false, std::memory_order_relaxed);
    return false;
  }
  if (!publish(idle, guard.self()) || insert(active, profile)) return true;
  if (publish(active, guard.self())) remove(idle, profile);
  return frozen;
}

// The entry that is no longer the list's.
Profile* take_profile(std::uint64_t func_addr) {
  const ListGuard guard;
  if (!guard.may_change()) return nullptr;
  const int active = active_side.load(std::memory_order_relaxed);
  const int idle = 1 - active;
  Profile* const profile = find(idle, func_addr);
  if (profile == nullptr) return nullptr;
  changing.store(true, std::memory_order_relaxed);
  remove(idle, profile);
  if (!publish(idle, guard.self())) return nullptr;
  remove(active, profile);
  return profile;
}

// ---- The hooks ----

struct Name {
  const char* text = "?";
  int len = 1;
};

// A hook's work: its thread is marked as inside it. A hook inside a hook, of an instrumented
// allocator say, does nothing.
class [[nodiscard]] Hook {
 public:
  Hook() {
    Caller* const caller = this_caller();
    if (caller == nullptr || is_inside_hook(*caller)) return;
    caller_ = caller;
    hooks_ = caller->hooks.load(std::memory_order_relaxed);
    caller->hooks.store(hooks_ + 1, std::memory_order_relaxed);
    light_fence();
  }
  ~Hook() {
    if (caller_ == nullptr) return;
    caller_->hooks.store(hooks_ + 2, std::memory_order_release);
  }
  Hook(const Hook&) = delete;
  Hook& operator=(const Hook&) = delete;

  bool entered() const { return caller_ != nullptr; }

  // Valid while the hook is at work.
  Name name_of(const void* this_fn) const {
    const int side = active_side.load(std::memory_order_acquire);
    const Profile* const profile = find(side, reinterpret_cast<std::uint64_t>(this_fn));
    return profile == nullptr ? Name{} : Name{profile->name, profile->name_len};
  }

 private:
  Caller* caller_ = nullptr;
  std::uint32_t hooks_ = 0;
};

// Whether a hook has nothing to print and nobody to tell: what it costs a process that is not
// traced.
bool is_idle() { return console_is_off() && !is_started(); }

#define NO_TEXT nullptr, 0
#define CALL_ARGUMENTS(name)                                                                 \
  -1, NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT, NO_TEXT, 0, 0, \
      (name).text, (name).len, "DYCALL", 6

[[gnu::cold]] void print_enter(const void* this_fn, Name name) {
  const CancelGuard not_cancelled;
  const ErrnoGuard errno_kept;
  console_printf(STDERR_FILENO, "%-14p | %*.s%s() {\n", this_fn,
                 depth.fetch_add(kIndent, std::memory_order_relaxed), " ", name.text);
}

[[gnu::cold]] void print_exit(const void* this_fn, Name name) {
  const CancelGuard not_cancelled;
  const ErrnoGuard errno_kept;
  console_printf(STDOUT_FILENO, "%-14p | %*.s} /* %s */\n", this_fn,
                 depth.fetch_sub(kIndent, std::memory_order_relaxed) - kIndent, " ", name.text);
}

// Apart from the hooks, so that an idle one saves no registers.
[[gnu::noinline]] void enter(const void* this_fn) {
  const Hook hook;
  if (!hook.entered()) return;
  const Name name = hook.name_of(this_fn);
  if (!console_is_off()) print_enter(this_fn, name);
  TRAN_CALLINFO_S(CALL_ARGUMENTS(name));
}

[[gnu::noinline]] void leave(const void* this_fn) {
  const Hook hook;
  if (!hook.entered()) return;
  const Name name = hook.name_of(this_fn);
  if (!console_is_off()) print_exit(this_fn, name);
  TRAN_CALLINFO_F(CALL_ARGUMENTS(name));
}

}  // namespace
}  // namespace varn

using namespace varn;

extern "C" {

void TRAN_ADD_PROFILE(std::uint64_t func_addr, const char* func_name) {
  if (func_name == nullptr) return;
  const CancelGuard not_cancelled;
  const ErrnoGuard errno_kept;
  const Announced announced(kInStartStop);
  if (announced.code() != 0) return;
  Profile* const profile = new_profile(func_addr, func_name);
  if (profile != nullptr && !add_profile(profile)) free_profile(profile);
}

void TRAN_DEL_PROFILE(std::uint64_t func_addr) {
  const CancelGuard not_cancelled;
  const ErrnoGuard errno_kept;
  const Announced announced(kInStartStop);
  if (announced.code() != 0) return;
  free_profile(take_profile(func_addr));
}

void __cyg_profile_func_enter(void* this_fn, void*) {
  if (!is_idle()) enter(this_fn);
}

void __cyg_profile_func_exit(void* this_fn, void*) {
  if (!is_idle()) leave(this_fn);
}

}  // extern "C"
