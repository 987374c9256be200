#include "core/context.h"

#include <signal.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "core/gvar.h"
#include "core/tran_ex.h"
#include "hash/get_ptrc_hash.h"
#include "util/cancel_guard.h"
#include "util/clock.h"
#include "util/console.h"
#include "util/errno_guard.h"
#include "util/log_printf.h"
#include "util/sem.h"
#include "util/shared_word.h"
#include "util/text.h"

namespace varn {
namespace {

constexpr std::int64_t kTableLockWaitNs = 2 * kNsPerSec;
constexpr int kTableLockSliceMs = 10;
constexpr std::int64_t kTableLockPauseSec = 1;
constexpr std::int64_t kSearchPauseNs = 1'000'000;

std::atomic<std::int64_t> table_lock_resume;  // second before which the lock is not tried
// The semaphore orders what its holders do, but only the kernel knows: this tells the C++ memory
// model, and with it the thread sanitizer.
std::atomic<bool> table_lock_order;
std::atomic<std::int64_t> entry_refused_ns;  // when the table last had no entry to give
std::atomic<std::uint64_t> last_claim_no;
bool buckets_ready;  // their mutexes are initialised; under main_lock
unsigned forks;      // between the process that first started the agent and this one

// Lock order: a bucket's mutex (this process), then the table's semaphore (all processes). Mutex
// first keeps at most one thread a bucket queued in the kernel.
class [[nodiscard]] BucketGuard {
 public:
  explicit BucketGuard(MtrTidIdx& bucket) : bucket_(bucket) {
    pthread_mutex_lock(&bucket_.bucket_lock);
  }
  ~BucketGuard() { pthread_mutex_unlock(&bucket_.bucket_lock); }
  BucketGuard(const BucketGuard&) = delete;
  BucketGuard& operator=(const BucketGuard&) = delete;

 private:
  MtrTidIdx& bucket_;
};

std::int64_t monotonic_ns() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNsPerSec + now.tv_nsec;
}
std::int64_t monotonic_seconds() { return monotonic_ns() / kNsPerSec; }

MtrTidIdx& bucket_of(std::uint64_t tid) {
  const unsigned low = tid & 0xff;
  return gvar.mtr_tid_idx[low != 0 ? low : tid >> 8 & 0xff];
}

TidSlot* find_slot(MtrTidIdx& bucket, std::uint64_t tid) {
  const TidSlot key = {tid, nullptr};
  return static_cast<TidSlot*>(std::bsearch(
      &key, bucket.tid_arr, static_cast<std::size_t>(bucket.cnt), sizeof key, comp_chk_tid));
}

bool release_requested(const MTR_CXT_VAR& var) {
  return var.ptrc != nullptr && load(var.ptrc->ent_status) == kEntReleaseRequested;
}

bool must_stay(const MtrTidIdx& bucket, int place) {
  return bucket.idx == 0 && place == 0;  // the process's own context
}

// Looked at before the semaphore is asked for: where every context of a full bucket is in use, the
// refused thread costs the other processes nothing. Nor much itself: the kernel is asked for its
// ten threads once a millisecond.
bool has_reclaimable(MtrTidIdx& bucket) {
  const std::int64_t now = monotonic_ns();
  if (now - bucket.searched_ns < kSearchPauseNs) return false;
  for (int i = 0; i < bucket.cnt; ++i) {
    const TidSlot& slot = bucket.tid_arr[i];
    if (slot.tid == 0 ? !must_stay(bucket, i)
                      : !thread_exists(load(slot.var->kernel_tid)) || release_requested(*slot.var))
      return true;
  }
  bucket.searched_ns = now;
  return false;
}

std::uint64_t new_claim_no() { return last_claim_no.fetch_add(1, std::memory_order_relaxed) + 1; }

// Takes a context from its thread; not while that thread works on it.
bool withdraw(MTR_CXT_VAR& var, const Caller* self) {
  store_release(var.claim_no, std::uint64_t{0});
  if (used_inside_a_call(var, self)) {
    store_release(var.claim_no, new_claim_no());
    return false;
  }
  return true;
}

void set_entry_cleared(const MTR_CXT_VAR& var) {
  if (var.ptrc == nullptr || load(var.ptrc->ent_pid) != var.pid ||
      load(var.ptrc->ent_tid) != var.tid)
    return;  // by now another's
  store_release(var.ptrc->ent_status, static_cast<std::uint8_t>(kEntCleared));
}

void prepare_buffer(TRAN_LOGF_QUE_DATA& record, const MTR_CXT_VAR& var) {
  record.mtype = kRecordMsgType;
  std::memset(reinterpret_cast<char*>(&record.length), ' ', kRecordTextSize);
  put_padded(record.view + kHostName.at, kHostName.width, {gvar.host_name, -1});
  std::memcpy(record.view + kPid.at, var.pid_txt, sizeof var.pid_txt);
  put_digits(record.view + kTid.at, kTid.width, static_cast<std::int64_t>(var.tid));
  put_digits(record.view + kMtrTidIdx.at, kMtrTidIdx.width, var.idx);
  put_digits(record.view + kPidx.at, kPidx.width, var.ptrc - gvar.ptrc_hash_tbl->entries);
}

// No level shows what another thread left there.
void clear_levels(MTR_CXT_VAR& var) {
  for (SvcLevel& level : var.svc_stack) {
    level = {};
    put_padded(level.gid, sizeof level.gid, {});
    put_padded(level.svc_id, sizeof level.svc_id, {});
  }
}

void prepare_buffers(MTR_CXT_VAR& var) {
  put_digits(var.pid_txt, sizeof var.pid_txt, var.pid);
  prepare_buffer(var.rec, var);
  prepare_buffer(var.rec2, var);
  const char* const name = gvar.cont_nm[0] != '\0' ? gvar.cont_nm : gvar.proc_nm;
  put_padded(var.rec.view + kProcNm.at, kProcNm.width, {name, -1});
  var.rec_used = kBodyAt;
}

// A chain longer than the table says that the table is damaged: tracing stops on the whole host
// until the collector has looked at it.
void stop_host_tracing(const MTR_CXT_VAR& var) {
  const PTRC_HASH_TBL& table = *gvar.ptrc_hash_tbl;
  log_printf("<!> PTRC_HASH_ARR_SIZE overflow (pid : %d, tid : %lu), used : %d(=%d)", var.pid,
             var.tid, static_cast<int>(load(table.used)),
             static_cast<int>(load(table.used_stack.count)));
  store(gvar.que_info->magic_code, 0U);
}

int find_entry(MTR_CXT_VAR& var, const MtrTidIdx& bucket) {
  const EntryOwner owner = {var.pid,      var.tid,      bucket.idx,   bucket.cnt,
                            gvar.proc_nm, gvar.cont_nm, gvar.db_user, gvar.db_sid};
  switch (get_ptrc_hash(*gvar.ptrc_hash_tbl, owner, &var.ptrc)) {
    case EntryResult::kFound:
      return TRAN_RC_OK;
    case EntryResult::kOverlong:
      stop_host_tracing(var);
      break;
    case EntryResult::kDamaged:
      VARN_LOG_LIMITED("<!> ptrc_hash_tbl is damaged, no entry for pid %d, tid %lu", var.pid,
                       var.tid);
      break;
    case EntryResult::kFull:
      VARN_LOG_LIMITED("<!> ptrc_hash_tbl is full, no entry for pid %d, tid %lu", var.pid, var.tid);
      break;
  }
  entry_refused_ns.store(monotonic_ns(), std::memory_order_relaxed);
  return TRAN_RC_NO_ENTRY;
}

// A thread without an entry asks at every call, but has the table searched, under the host's
// semaphore, once a millisecond only.
bool was_refused_just_now() {
  return monotonic_ns() - entry_refused_ns.load(std::memory_order_relaxed) < kSearchPauseNs;
}

// With the bucket locked.
int claim_context(Caller& caller, MtrTidIdx& bucket, std::uint64_t tid, MTR_CXT_VAR** out) {
  if (bucket.cnt == kBucketContexts && !has_reclaimable(bucket)) return TRAN_RC_NO_CONTEXT;
  if (was_refused_just_now()) return TRAN_RC_NO_ENTRY;
  const TableLock lock;
  if (!lock.entered()) return TRAN_RC_NO_ENTRY;
  check_mtr_cxt_var(bucket, &caller);
  MTR_CXT_VAR* const var = get_empty_mtr_cxt_var(gvar.mtr_cxt_var[bucket.idx]);
  if (bucket.cnt == kBucketContexts || var == nullptr) return TRAN_RC_NO_CONTEXT;
  if (find_slot(bucket, tid) != nullptr)
    return TRAN_RC_NO_CONTEXT;  // its last user is inside a call

  var->pid = gvar.pid;
  var->tid = tid;
  var->idx = bucket.idx;
  var->ptrc = nullptr;
  var->cxt_init_flag = find_entry(*var, bucket);
  if (var->cxt_init_flag != 0) return var->cxt_init_flag;

  store(var->kernel_tid, caller.kernel_tid.load(std::memory_order_relaxed));
  var->in_use = 1;
  var->svc = nullptr;
  var->svc_depth = 0;
  var->log_bit = 0;
  std::memset(&var->svc_call_stat, 0, sizeof var->svc_call_stat);
  std::memset(var->hashed_gid, 0, sizeof var->hashed_gid);
  var->gid_hash = 0;  // as zero bytes hash
  clear_levels(*var);
  prepare_buffers(*var);
  store_release(var->claim_no, new_claim_no());

  bucket.tid_arr[bucket.cnt++] = {tid, var};
  std::qsort(bucket.tid_arr, static_cast<std::size_t>(bucket.cnt), sizeof(TidSlot), comp_chk_tid);
  *out = var;
  return TRAN_RC_OK;
}

// A POSIX thread id may come back with a new thread after its first one has ended; that is another
// thread. An id that the caller gave is itself the identity.
bool is_same_thread(const MTR_CXT_VAR& var, const Caller& caller, int tid) {
  return tid >= 0 || load(var.kernel_tid) == caller.kernel_tid.load(std::memory_order_relaxed);
}

void release_context(MtrTidIdx& bucket, int place) {
  TidSlot& slot = bucket.tid_arr[place];
  MTR_CXT_VAR& var = *slot.var;
  PTRC_HASH_ENT* const ptrc = var.ptrc;
  if (ptrc == nullptr) {
    log_printf(
        "(I) mtr_tid_idx[%04d - %d of %d] pid(%d/?\?)-tid(%lu/?\?) closing error. get_ptrc is [ "
        "null "
        "]",
        bucket.idx, place + 1, bucket.cnt, var.pid, var.tid);
  } else {
    const std::int32_t ent_pid = load(ptrc->ent_pid);
    const std::uint64_t ent_tid = load(ptrc->ent_tid);
    log_printf(
        "(I) mtr_tid_idx[%04d - %d of %d] pid(%d/%d)-tid(%lu/%lu) closed. get_ptrc[%d] is [ "
        "%s - %s ]",
        bucket.idx, place + 1, bucket.cnt, var.pid, ent_pid, var.tid, ent_tid, load(ptrc->pidx),
        ent_pid == var.pid ? "true" : "false", ent_tid == var.tid ? "true" : "false");
    const TableLock lock;
    if (lock.entered()) {
      if (ent_tid != 0 && ent_pid == var.pid && ent_tid == var.tid) {
        ptrc->prev_tran_state = load(ptrc->tran_state);
        store(ptrc->tran_state, 'h');
      }
      store(ptrc->svc_mark_time, static_cast<std::int64_t>(time(nullptr)));
    }
    var.ptrc = nullptr;
  }
  store_release(var.claim_no, std::uint64_t{0});
  var.in_use = 0;
}

}  // namespace

// No handler of the host's runs inside, since it might leave by a jump. While the lock is waited
// for they run all the same.
TableLock::TableLock() : entered_(false), forks_(forks) {
  if (monotonic_seconds() < table_lock_resume.load(std::memory_order_relaxed)) return;
  sigset_t all;
  sigfillset(&all);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigdelset(&all, fault);
  const std::int64_t end = monotonic_ns() + kTableLockWaitNs;
  int error = 0;
  do {
    pthread_sigmask(SIG_SETMASK, &all, &before_);
    entered_ = sem_lock_within(gvar.ptrc_hash_semid, 0, SEM_UNDO, kTableLockSliceMs) == 0;
    if (entered_) {
      static_cast<void>(table_lock_order.load(std::memory_order_acquire));
      return;
    }
    error = errno;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  } while (error == EAGAIN && monotonic_ns() < end);
  log_printf("<!> ptrc_hash_tbl semaphore could not be taken, errno(%d) : %s", error,
             std::strerror(error));
  table_lock_resume.store(monotonic_seconds() + 1 + kTableLockPauseSec, std::memory_order_relaxed);
}

TableLock::~TableLock() {
  if (!entered_) return;
  if (forks_ != forks) {  // in a forked child, whose parent holds it
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    return;
  }
  table_lock_order.store(true, std::memory_order_release);
  sem_unlock(gvar.ptrc_hash_semid, 0, SEM_UNDO);
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

std::uint64_t get_tid(const Caller& caller, int tid) {
  if (tid >= 0) return static_cast<std::uint64_t>(tid);
  if (use_kernel_tid)
    return static_cast<std::uint64_t>(caller.kernel_tid.load(std::memory_order_relaxed));
  return pthread_self();
}

[[gnu::cold, gnu::noinline]] int search_context(Caller& caller, int tid, MTR_CXT_VAR** out) {
  const ErrnoGuard errno_kept;
  const CancelGuard not_cancelled;
  const std::uint64_t id = get_tid(caller, tid);
  MtrTidIdx& bucket = bucket_of(id);
  const BucketGuard guard(bucket);

  TidSlot* const slot = find_slot(bucket, id);
  if (slot != nullptr && is_same_thread(*slot->var, caller, tid)) {
    *out = slot->var;
  } else {
    // The one that held this id has ended, even if its kernel id lives on with another thread.
    if (slot != nullptr) store(slot->var->kernel_tid, 0);
    if (const int rc = claim_context(caller, bucket, id, out); rc != 0) return rc;
  }
  caller.claim_no = load((*out)->claim_no);
  caller.tid_arg = tid < 0 ? -1 : tid;
  caller.var.store(*out, std::memory_order_relaxed);
  return TRAN_RC_OK;
}

void log_no_context(const char* call, int rc, int tid) {
  VARN_LOG_LIMITED("<!> %s get_mtr_cxt_var error, return code %d, tid %d", call, rc, tid);
}

void log_foreign_entry(const MTR_CXT_VAR& var) {
  const PTRC_HASH_ENT& ptrc = *var.ptrc;
  VARN_LOG_LIMITED(
      "<!> get_mtr_cxt_var return error!! tid (%lu) <> get_ptrc-> tid (%lu)[ pid %d, pidx %d ]",
      var.tid, load(ptrc.ent_tid), load(ptrc.ent_pid), load(ptrc.pidx));
}

MTR_CXT_VAR* get_empty_mtr_cxt_var(MTR_CXT_VAR (&slots)[kBucketContexts]) {
  for (MTR_CXT_VAR& var : slots)
    if (var.in_use == 0) return &var;
  return nullptr;
}

void check_mtr_cxt_var(MtrTidIdx& bucket, const Caller* self) {
  const int cnt = bucket.cnt;
  int kept = 0;
  for (int i = 0; i < cnt; ++i) {
    const TidSlot slot = bucket.tid_arr[i];
    MTR_CXT_VAR& var = *slot.var;
    const bool alive = isalive(var);
    const bool wanted = slot.tid == 0 ? must_stay(bucket, i) : alive && !release_requested(var);
    if (wanted || !withdraw(var, self)) {
      bucket.tid_arr[kept++] = slot;
      continue;
    }
    log_printf("(I) mtr_tid_idx#%d-%d, tid %lu (thread %s, ptrc %d) resource clear.(%d->%d)",
               bucket.idx, i, slot.tid, alive ? "alive" : "killed",
               var.ptrc == nullptr ? 0 : load(var.ptrc->ent_status), bucket.cnt, bucket.cnt - 1);
    set_entry_cleared(var);
    var.in_use = 0;
    --bucket.cnt;
  }
}

bool isalive(const MTR_CXT_VAR& var) {
  if (var.tid == 0 || thread_exists(load(var.kernel_tid))) return true;
  log_printf("(i) thread killed. tid : %lu", var.tid);
  return false;
}

int comp_chk_tid(const void* a, const void* b) {
  const std::uint64_t left = static_cast<const TidSlot*>(a)->tid;
  const std::uint64_t right = static_cast<const TidSlot*>(b)->tid;
  return left < right ? -1 : left > right ? 1 : 0;
}

void show_mtr_idx_list(const MtrTidIdx& bucket) {
  log_printf("------>> mtr_idx_list (%d) <<------", bucket.cnt);
  const std::int64_t now = time(nullptr);
  for (int i = 0; i < bucket.cnt; ++i) {
    const MTR_CXT_VAR& var = *bucket.tid_arr[i].var;
    log_printf(">>idx arr[%d] tid : %lu", i, bucket.tid_arr[i].tid);
    log_printf(">>idx arr[%d] var->pid : %d", i, var.pid);
    log_printf(">>idx arr[%d] var->tid : %lu", i, var.tid);
    log_printf(">>idx arr[%d] var->idx : %d", i, var.idx);
    log_printf(">>idx arr[%d] var->log_bit : %d", i, var.log_bit);
    log_printf(">>idx arr[%d] var->cxt_init_flag : %d", i, var.cxt_init_flag);
    log_printf(">>idx arr[%d] var->in_use : %d", i, var.in_use);
    log_printf(">>idx arr[%d] var->lasted_access (sec): %d", i,
               static_cast<int>(now - load(var.lasted_access)));
  }
  if (!console_is_off()) console_write(STDOUT_FILENO, "------------------------------\n");
}

void set_cont_nm(const char* block, std::size_t len, char* out, const char* name) {
  constexpr std::size_t kMostCopied = 30;
  for (std::size_t i = 1; i + 1 < len; ++i) {
    if (block[i] != '\0') continue;
    if (block[i - 1] == '\0') return;
    const char* const begin = block + i + 1;
    const std::string_view text(begin, strnlen(begin, len - i - 1));
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || text.find(name) == std::string_view::npos) continue;
    const std::size_t n = std::min(text.size() - equals - 1, kMostCopied);
    std::memcpy(out, text.data() + equals + 1, n);
    out[n] = '\0';
  }
}

bool init_contexts() {
  entry_refused_ns.store(0, std::memory_order_relaxed);  // a start asks the table itself
  if (buckets_ready) return true;
  for (int i = 0; i < kBuckets; ++i) {
    MtrTidIdx& bucket = gvar.mtr_tid_idx[i];
    bucket.idx = i;
    for (MTR_CXT_VAR& var : gvar.mtr_cxt_var[i]) {
      if (var.in_use == 0) continue;                  // its page stays untouched
      store_release(var.claim_no, std::uint64_t{0});  // a forked child: the parent's thread's
      var.in_use = 0;
    }
    if (pthread_mutex_init(&bucket.bucket_lock, nullptr) != 0) return false;
  }
  buckets_ready = true;
  return true;
}

void forget_contexts() {
  buckets_ready = false;
  ++forks;
}

bool has_contexts() { return buckets_ready; }

void release_contexts() {
  buckets_ready = false;
  for (MtrTidIdx& bucket : gvar.mtr_tid_idx) {
    {
      const BucketGuard guard(bucket);
      for (int i = 0; i < bucket.cnt; ++i) release_context(bucket, i);
      bucket.cnt = 0;
    }
    if (const int rc = pthread_mutex_destroy(&bucket.bucket_lock); rc != 0)
      log_printf("<!> pthread_mutex_destroy error %d", rc);
  }
}

}  // namespace varn
