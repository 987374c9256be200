#include "core/tran_ex.h"

#include <pthread.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/banner.h"
#include "core/call.h"
#include "core/caller.h"
#include "core/context.h"
#include "core/notice.h"
#include "core/start_up.h"
#include "tong/th_job.h"
#include "tong/tong.h"
#include "util/cancel_guard.h"
#include "util/console.h"
#include "util/errno_guard.h"
#include "util/fence.h"
#include "util/local_time.h"
#include "util/log_printf.h"
#include "util/message.h"
#include "util/shared_word.h"

namespace varn {
namespace {

constexpr int kDrainPauseMs = 10;
constexpr int kDrainWaitMs = 3000;  // longer than a call may wait for the table's semaphore

pthread_mutex_t main_lock = PTHREAD_MUTEX_INITIALIZER;

class [[nodiscard]] MainGuard {
 public:
  MainGuard() { pthread_mutex_lock(&main_lock); }
  ~MainGuard() { pthread_mutex_unlock(&main_lock); }
  MainGuard(const MainGuard&) = delete;
  MainGuard& operator=(const MainGuard&) = delete;
};

// The contexts need no zeroing: those in use are given back apart, and a claim fills what it uses.
void clear_gvar() {
  constexpr std::size_t kContextsAt = offsetof(Gvar, mtr_cxt_var);
  std::memset(reinterpret_cast<char*>(&gvar) + kZeroedFrom, 0, kContextsAt - kZeroedFrom);
  load_text(gvar.db_user, init_db_user);
  load_text(gvar.db_sid, init_db_sid);
}

template <typename Segment>
int detach_segment(Segment** segment) {
  if (*segment == nullptr) return 0;
  const int rc = shmdt(*segment);
  if (rc == 0) *segment = nullptr;
  return rc;
}

// Only the forking thread lives on in the child, and any lock may be held by nobody. The child
// starts as not initialised, with nothing attached, and leaves the parent's entries alone.
void after_fork_in_child() {
  store_release(gvar.init_mark, kNeverStarted);
  gvar_cleared = 0;
  pthread_mutex_init(&main_lock, nullptr);
  forget_contexts();
  forget_log();
  forget_th_job();
  forget_tong();
  if (my_caller != nullptr) return;  // it forked inside a call: what that works on stays
  detach_segment(&gvar.que_info);
  detach_segment(&gvar.svc_hash_tbl);
  detach_segment(&gvar.ptrc_hash_tbl);
}

// What is done once in a process's life.
void prepare_process() {
  static bool prepared = false;
  if (prepared) return;
  prepare_heavy_fence();
  prepared = prepare_local_time() && pthread_atfork(nullptr, nullptr, after_fork_in_child) == 0;
}

const char* environment_or(const char* name, const char* other) {
  const char* const value = secure_getenv(name);
  return value != nullptr ? value : other;
}

void log_start() {
  const TRAN_LOGF_QUE_INFO& info = *gvar.que_info;
  log_printf(
      "(I) [SHARED_LIB] TRAN_INIT [%s] complete.. [ MTR_TID_IDX(%d) %d bytes ] [ magic_code "
      "0x%08x, "
      " qcnt %d, log_flag_set 0x%02x, proc_nm : %s %s(%d), TRAN_LOGF_QUE_INFO %d bytes, "
      "TRAN_LOGF_QUE_DATA %d bytes, GLOBAL_VAR %d bytes, gvar_cleared %d, LANG %s ]",
      kVersionText, kBuckets, static_cast<int>(sizeof gvar.mtr_tid_idx + sizeof gvar.mtr_cxt_var),
      load(info.magic_code), load(info.que_cnt), load(info.log_flag_set), gvar.proc_nm,
      gvar.cont_nm, gvar.pid, static_cast<int>(sizeof info), static_cast<int>(kLongestRecord),
      static_cast<int>(sizeof gvar), gvar_cleared, environment_or("LANG", "None"));
  if (const char* const preload = secure_getenv("LD_PRELOAD"); preload != nullptr)
    log_printf("(I) [PRELOAD LIBRARY] hooking library loaded... { LD_PRELOAD = %s }", preload);
}

void announce_process(MTR_CXT_VAR& var) {
  Message<kEventBody.back().width> message;
  message << "거래추적 대상 프로세스(" << std::string_view(gvar.proc_nm) << ")가 기동되었습니다.";
  Event event;
  event.event_cd = {"1508", 4};
  event.message = message.text();
  emit_event(var, event);
}

int fail_start(int rc) {
  store_release(gvar.init_mark, kStartFailed);
  return rc;
}

int start_locked(Caller& caller) {
  if (gvar_cleared == 0) clear_gvar();
  if (!init_contexts()) return TRAN_RC_NO_MUTEX;
  gvar_cleared = gvar_cleared == 0 ? 1 : 2;

  if (const int rc = tran_init(); rc != 0)
    return rc == TRAN_RC_ALREADY_STARTED ? rc : fail_start(rc);
  store_release(gvar.init_mark, kStarted);

  MTR_CXT_VAR* var = nullptr;
  const int claimed = get_mtr_cxt_var(caller, 0, &var);
  if (claimed != 0) {
    log_printf("<!> TRAN_INIT get_mtr_cxt_var error, return code %d", claimed);
    return fail_start(claimed);
  }
  start_th_job();
  log_start();
  if (jni_init_flag == 0) {
    announce_process(*var);
    show_banner();
  }
  log_printf("(I) %s Process (%s / %s) Start OK (ret %d)", jni_init_flag != 0 ? "JNI" : "API",
             gvar.proc_nm, gvar.cont_nm, claimed);
  return TRAN_RC_OK;
}

int detach_all() {
  if (const int rc = detach_segment(&gvar.que_info); rc != 0) {
    log_printf("<!> tran_logf_que_info shmdt error %d", rc);
    return rc;
  }
  if (const int rc = detach_segment(&gvar.svc_hash_tbl); rc != 0) {
    log_printf("<!> svc_hash_tbl shmdt error %d", rc);
    return rc;
  }
  if (const int rc = detach_segment(&gvar.ptrc_hash_tbl); rc != 0) {
    log_printf("<!> ptrc_hash_tbl shmdt error %d", rc);
    return rc;
  }
  return 0;
}

void stop_tong() {
  stop_th_job();
  const TongCounts counts = tong_counts();
  if (counts.written + counts.dropped > 0)
    log_printf("(I) tong log: %ld written, %ld dropped", counts.written, counts.dropped);
}

// Once no thread is inside a call: 0, or negative when something stays attached for the next start.
int release_all(const Caller& self) {
  const bool have_left = wait_for_callers(&self, kDrainWaitMs);
  stop_tong();
  if (!have_left) {
    log_printf("<!> a traced call is still under way, nothing is detached");
    return -1;
  }
  release_contexts();
  return detach_all();
}

int tran_destroy(const Caller& self) {
  // A failed start or stop may have left something behind.
  if (!is_started()) return has_contexts() ? release_all(self) : detach_all();
  store_release(gvar.init_mark, kNeverStarted);
  usleep(kDrainPauseMs * 1000);
  if (const int rc = release_all(self); rc != 0) return rc;
  log_printf("(I) [SHARED_LIB] tran_destroy() [%s] complete.. proc_nm : %s %s(%d)", kVersionText,
             gvar.proc_nm, gvar.cont_nm, gvar.pid);
  return 0;
}

}  // namespace

int error_class(tran_call_rc& result) {
  if (result.status == -1) {
    result.rc = 99;
    return 0;
  }
  if (result.rc >= 0 || result.rc < -127) return 0;
  const std::int8_t error_class = load(gvar.que_info->fst_err_rc_set[-result.rc]);
  return error_class == 1 || error_class == 2 ? error_class : 0;
}

int start_agent() {
  const CancelGuard not_cancelled;
  const ErrnoGuard errno_kept;
  Announced announced(kInStartStop);
  if (announced.code() != 0) return announced.code();
  const MainGuard guard;
  prepare_process();
  read_console_setting();
  return start_locked(announced.caller());
}

int stop_agent() {
  const CancelGuard not_cancelled;
  const ErrnoGuard errno_kept;
  Announced announced(kInStartStop);
  if (announced.code() != 0) return TRAN_RC_FAILED;
  const MainGuard guard;
  if (tran_destroy(announced.caller()) < 0) {
    log_printf(">> TRAN_DONE() Fail...\n");
    return TRAN_RC_FAILED;
  }
  log_printf(">> TRAN_DONE() Success...\n");
  close_log();
  gvar_cleared = 0;
  return TRAN_RC_OK;
}

}  // namespace varn
