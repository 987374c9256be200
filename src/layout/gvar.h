// The agent's own state: one record for the process, and in it the contexts of its threads. Private
// to the process; nothing else reads it.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "layout/pin.h"
#include "layout/ptrc_hash_tbl.h"
#include "layout/que_info.h"
#include "layout/record.h"
#include "layout/stamp.h"
#include "layout/svc_hash_tbl.h"

namespace varn {

inline constexpr int kBuckets = 256;  // chosen by the low byte of the thread id
inline constexpr int kBucketContexts = 10;

// init_mark
inline constexpr std::int32_t kNeverStarted = 0;
inline constexpr std::int32_t kStarted = 1111;
inline constexpr std::int32_t kStartFailed = 2222;

// log_bit
inline constexpr std::int32_t kStartBit = 1;
inline constexpr std::int32_t kEndBit = 2;

// One open service level.
struct SvcLevel {
  char gid[32];
  char separator;  // zero
  char svc_id[16];
  char reserved1[5];
  char recv_svc_cd[12];
  char reserved2[8];
};
VARN_PIN(SvcLevel, svc_id, 33);
VARN_PIN(SvcLevel, recv_svc_cd, 54);
static_assert(sizeof(SvcLevel) == 74);

// What the calls of the current service add up to. Times in microseconds.
struct SvcCallStat {
  std::uint32_t biz_cnt;
  std::uint32_t dbio_cnt;
  std::int64_t biz_elapsed_sum;
  std::int64_t dbio_elapsed_sum;
  std::int64_t biz_max;
  std::int64_t biz_self_max;  // less the time of its own calls
  std::int64_t dbio_max;
  std::int32_t max_call_nest;
  std::uint8_t over_call_flag;
};

// A thread's monitoring context. Used by its own thread without a lock; claimed and released under
// its bucket's lock.
struct MTR_CXT_VAR {
  std::uint64_t claim_no;      // tells one claim from the next; 0 while free; read by other threads
  std::int32_t kernel_tid;     // thread that claimed it, or used it last; read by other threads
  std::int32_t in_use;         // 1 while it belongs to a thread
  std::int64_t lasted_access;  // second of the last look-up; read by other threads
  std::int32_t pid;
  std::int32_t idx;  // number of the bucket
  std::uint64_t tid;
  const SVC_HASH_ENT* svc;     // the outermost service's own settings, if it has any
  PTRC_HASH_ENT* ptrc;         // the thread's shared entry
  std::int32_t cxt_init_flag;  // 0, or 116 when there was no entry to be had
  std::int32_t log_bit;        // kStartBit, kEndBit: state of the outermost service
  std::int8_t svc_depth;       // open services
  char pid_txt[8];             // as a record shows it
  std::uint32_t rec_used;      // bytes of rec.view that may not be blank
  std::uint32_t gid_hash;      // of the part of hashed_gid that chooses the queue
  char hashed_gid[32];
  SvcCallStat svc_call_stat;
  ClockBase clock;
  StampCache stamp;
  SvcLevel svc_stack[kMaxSvcDepth];
  TRAN_LOGF_QUE_DATA rec;
  TRAN_LOGF_QUE_DATA rec2;
};

struct TidSlot {
  std::uint64_t tid;
  MTR_CXT_VAR* var;
};

struct MtrTidIdx {
  std::int32_t idx;          // the bucket's own number
  std::int32_t cnt;          // entries of tid_arr in use, in ascending order of thread id
  std::int64_t searched_ns;  // when all its threads were last found alive, for a further one
  pthread_mutex_t bucket_lock;
  TidSlot tid_arr[kBucketContexts];
};

struct Gvar {
  std::int32_t init_mark;         // kNeverStarted, kStarted or kStartFailed
  std::int32_t svc_timeout_flag;  // 1: a service time-out was signalled

  // All from here on is zeroed by a first start. Attached segments; null when not attached.
  TRAN_LOGF_QUE_INFO* que_info;
  SVC_HASH_TBL* svc_hash_tbl;
  PTRC_HASH_TBL* ptrc_hash_tbl;
  std::int32_t que_info_shmid;
  std::int32_t svc_hash_shmid;
  std::int32_t svc_hash_semid;
  std::int32_t ptrc_hash_shmid;
  std::int32_t ptrc_hash_semid;
  std::int32_t msgq_key;  // of queue 0
  std::int32_t msgq_cnt;  // queues opened
  std::int32_t msgq_id[kMaxQueues];

  char host_name[16];
  char log_interface[2];
  char tr_section[1];
  char proc_nm[31];
  char cont_nm[31];  // shown in place of proc_nm when not empty
  std::int32_t pid;
  char db_user[11];
  char db_sid[11];

  char dbio_func_signature[11];
  std::int32_t dbio_func_sign_no;  // position of the signature in a function's name; -1: none
  std::int32_t idle_release_sec;
  std::int32_t idle_release_2;
  std::int32_t infinite_loop_base_cnt;
  std::int32_t default_timeout_sec;

  MtrTidIdx mtr_tid_idx[kBuckets];
  // Beside the buckets, not inside them: an idle process touches only the buckets' few pages.
  MTR_CXT_VAR mtr_cxt_var[kBuckets][kBucketContexts];
};
inline constexpr std::size_t kZeroedFrom = offsetof(Gvar, que_info);

}  // namespace varn
