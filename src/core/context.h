// The contexts of threads: finding a thread's own, claiming a free one for a new thread, and taking
// back those of threads that have ended.
#pragma once

#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "core/caller.h"
#include "core/tran_ex.h"
#include "layout/gvar.h"
#include "util/shared_word.h"

namespace varn {

// The thread id that a thread number stands for: itself, or for a negative one the calling
// thread's.
std::uint64_t get_tid(const Caller& caller, int tid);

// The rare ways of get_mtr_cxt_var.
[[gnu::cold]] int search_context(Caller& caller, int tid, MTR_CXT_VAR** out);
[[gnu::cold]] void log_foreign_entry(const MTR_CXT_VAR& var);

// Tells the log that a call found no context.
[[gnu::cold]] void log_no_context(const char* call, int rc, int tid);

// Finds or claims the context, inside a call of a started agent: 0, or 107 or 116.
inline int get_mtr_cxt_var(Caller& caller, int tid, MTR_CXT_VAR** out) {
  MTR_CXT_VAR* var = caller.var.load(std::memory_order_relaxed);
  // The same thread again: no search and no lock.
  const bool is_same = var != nullptr && caller.tid_arg == (tid < 0 ? -1 : tid) &&
                       load_acquire(var->claim_no) == caller.claim_no;
  if (!is_same) [[unlikely]] {
    if (const int rc = search_context(caller, tid, &var); rc != 0) return rc;
  }
  store(var->kernel_tid, caller.kernel_tid.load(std::memory_order_relaxed));
  store(var->lasted_access, static_cast<std::int64_t>(time(nullptr)));
  if (var->ptrc != nullptr && load(var->ptrc->ent_tid) != var->tid) [[unlikely]]
    log_foreign_entry(*var);
  *out = var;
  return TRAN_RC_OK;
}

// The innermost open service; null when the depth is not 1 to 10, which threads that share the
// process's own context may make it at any time.
inline SvcLevel* current_level(MTR_CXT_VAR& var) {
  const int depth = load(var.svc_depth);
  return depth < 1 || depth > kMaxSvcDepth ? nullptr : &var.svc_stack[depth - 1];
}

// The first free one of a bucket's contexts, or null.
MTR_CXT_VAR* get_empty_mtr_cxt_var(MTR_CXT_VAR (&slots)[kBucketContexts]);

// Releases the contexts of a bucket whose threads have ended or whose entries the collector wants
// back. To be called with the bucket locked and the process-thread table's semaphore held.
void check_mtr_cxt_var(MtrTidIdx& bucket, const Caller* self);

// Whether the context's thread still exists. The process's own context (thread id 0) always lives.
bool isalive(const MTR_CXT_VAR& var);

// Orders entries by thread id: negative, zero or positive.
int comp_chk_tid(const void* a, const void* b);

// A bucket's entries, to the agent log.
void show_mtr_idx_list(const MtrTidIdx& bucket);

// Reads the value of `name` from an environment block (zero-separated NAME=VALUE strings): at most
// 30 characters into `out`. The first string of a block is not looked at.
void set_cont_nm(const char* block, std::size_t len, char* out, const char* name);

// Start and stop. Initialising does nothing where it was done already, and fails when a bucket's
// mutex cannot be had. Forgetting is for a forked child, whose parent's threads may hold the
// mutexes.
bool init_contexts();
void release_contexts();
void forget_contexts();
bool has_contexts();  // initialised and not released

// Host-wide lock on the process-thread table. Waiting for it is bounded, and after a failure this
// process leaves it alone for a second: a holder that is stopped must not stop the host.
class [[nodiscard]] TableLock {
 public:
  TableLock();
  ~TableLock();
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;

  bool entered() const { return entered_; }

 private:
  bool entered_;
  unsigned forks_;
  sigset_t before_;
};

}  // namespace varn
