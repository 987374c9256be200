#include "core/start_up.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "core/gvar.h"
#include "core/tran_ex.h"
#include "layout/config_keys.h"
#include "tong/th_job.h"
#include "tong/tong.h"
#include "util/clock.h"
#include "util/console.h"
#include "util/log_printf.h"
#include "util/msgq.h"
#include "util/readcfg.h"
#include "util/sem.h"
#include "util/shared_word.h"
#include "util/text.h"

namespace varn {
namespace {

constexpr int kFailed = TRAN_RC_NOT_STARTED;
constexpr std::int64_t kMostKey = std::numeric_limits<key_t>::max();
constexpr char kLogTitle[] = "libvarn";
constexpr int kMostLogHome = 240;  // so that the log's directory below it still fits

constexpr std::int64_t kTongBudgetMb = 512;
constexpr std::int64_t kMostTongBudgetMb = 1 << 20;

// What a row of the table below does with its key's value: 0, or the code that ends the start.
using Take = int (*)(const ConfigKey& key, const char* value);

bool to_number(const char* text, std::int64_t least, std::int64_t most, std::int64_t* out) {
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(text, &end, 10);
  const bool is_good =
      end != text && *end == '\0' && errno == 0 && number >= least && number <= most;
  if (is_good) *out = number;
  return is_good;
}

bool parse_number(const ConfigKey& key, const char* value, std::int64_t least, std::int64_t most,
                  std::int64_t* out) {
  if (to_number(value, least, most, out)) return true;
  log_printf("<!> tran_init fail, [%s] is not a number from %ld to %ld : %s", key.key, least, most,
             value);
  return false;
}

int parse_int32(const ConfigKey& key, const char* value, std::int32_t* out) {
  std::int64_t number = 0;
  if (!parse_number(key, value, std::numeric_limits<std::int32_t>::min(),
                    std::numeric_limits<std::int32_t>::max(), &number))
    return kFailed;
  *out = static_cast<std::int32_t>(number);
  return 0;
}

// A key of 0 would make the kernel create an object instead of finding one.
bool parse_ipc_key(const ConfigKey& key, const char* value, std::int64_t most, key_t* out) {
  std::int64_t number = 0;
  if (!parse_number(key, value, 1, most, &number)) return false;
  *out = static_cast<key_t>(number);
  return true;
}

enum class Attach { kDone, kNoSegment, kNotAttached };

// A segment that an earlier start left attached is used as it is, if it is still the key's. If it
// is not, its mapping stays: contexts of that start may point into it.
template <typename Segment>
Attach attach_segment(key_t key, std::int32_t* shmid, Segment** segment) {
  const int id = shmget(key, sizeof(Segment), 0666);
  if (id < 0) return Attach::kNoSegment;
  if (*segment != nullptr && id == *shmid) return Attach::kDone;
  void* const at = shmat(id, nullptr, 0);
  if (at == reinterpret_cast<void*>(-1)) return Attach::kNotAttached;
  *shmid = id;
  *segment = static_cast<Segment*>(at);
  return Attach::kDone;
}

int take_log_home(const ConfigKey& key, const char* value) {
  const char* const home = secure_getenv("TRAN_AGT_HOME");
  if (home == nullptr) return TRAN_RC_NO_ENVIRONMENT;  // taken away meanwhile
  const int n = value[0] == '/'
                    ? std::snprintf(log_home_dir, sizeof log_home_dir, "%s", value)
                    : std::snprintf(log_home_dir, sizeof log_home_dir, "%s/%s", home, value);
  if (n > kMostLogHome) {
    console_printf(STDERR_FILENO, "[tran_init] [%s] is over %d characters : %s\n", key.key,
                   kMostLogHome, log_home_dir);
    return kFailed;
  }
  char dir[sizeof log_home_dir + 32];
  std::snprintf(dir, sizeof dir, "%s/proc/%s", log_home_dir, kLogTitle);
  open_log(dir, kLogTitle, 0);
  return 0;
}

int take_tong_log_home(const ConfigKey&, const char* value) {
  std::snprintf(tong_log_home_dir, sizeof tong_log_home_dir, value[0] == '/' ? "%s" : "/%s", value);
  return 0;
}

int take_log_interface(const ConfigKey&, const char* value) {
  put_padded(gvar.log_interface, sizeof gvar.log_interface, {value, -1});
  return 0;
}

int take_tr_section(const ConfigKey&, const char* value) {
  gvar.tr_section[0] = value[0];
  return 0;
}

int attach_que_info(const ConfigKey& key, const char* value) {
  key_t shm_key = 0;
  if (!parse_ipc_key(key, value, kMostKey, &shm_key)) return kFailed;
  switch (attach_segment(shm_key, &gvar.que_info_shmid, &gvar.que_info)) {
    case Attach::kNoSegment:
      log_printf("<!> tran_init fail, shared-memory initialize [TRAN_LOGF_QUE_INFO], errno : %d",
                 errno);
      return kFailed;
    case Attach::kNotAttached:
      log_printf("<!> tran_init fail, shared-memory attach [TRAN_LOGF_QUE_INFO], errno(%d) : %s",
                 errno, std::strerror(errno));
      return kFailed;
    case Attach::kDone:
      break;
  }
  store(gvar.svc_timeout_flag, 0);
  return 0;
}

template <typename Segment>
int attach_table(const ConfigKey& key, const char* value, const char* name, std::int32_t* shmid,
                 Segment** segment) {
  constexpr int kSize = sizeof(Segment);
  key_t shm_key = 0;
  if (!parse_ipc_key(key, value, kMostKey, &shm_key)) return kFailed;
  switch (attach_segment(shm_key, shmid, segment)) {
    case Attach::kNoSegment:
      log_printf("<!> tran_init fail, shared-memory initialize [%s] ( %d bytes)", name, kSize);
      return kFailed;
    case Attach::kNotAttached:
      log_printf("<!> tran_init fail, shared-memory attach [%s]( %d bytes), errno(%d) : %s", name,
                 kSize, errno, std::strerror(errno));
      return kFailed;
    case Attach::kDone:
      break;
  }
  return 0;
}

// The keys of a table's segment and of its semaphore stand on two rows; the segment waits until the
// semaphore is found.
char pending_shm_key[kMaxConfigToken + 1];

int keep_shm_key(const ConfigKey&, const char* value) {
  put_zero_ended(pending_shm_key, value);
  return 0;
}

int take_semaphore(const ConfigKey& key, const char* value, const char* name, std::int32_t* semid) {
  key_t sem_key = 0;
  if (!parse_ipc_key(key, value, kMostKey, &sem_key)) return kFailed;
  *semid = create_sem(sem_key, 1);
  if (*semid >= 0) return 0;
  log_printf("<!> %s semaphore create error.[key:0x%x]", name, static_cast<unsigned>(sem_key));
  return kFailed;
}

int attach_svc_hash_tbl(const ConfigKey& key, const char* value) {
  if (take_semaphore(key, value, "svc_hash_tbl", &gvar.svc_hash_semid) != 0) return kFailed;
  return attach_table(kSvcHashTblShmKey, pending_shm_key, "SVC_HASH_TBL", &gvar.svc_hash_shmid,
                      &gvar.svc_hash_tbl);
}

int attach_ptrc_hash_tbl(const ConfigKey& key, const char* value) {
  if (take_semaphore(key, value, "ptrc_hash_tbl", &gvar.ptrc_hash_semid) != 0) return kFailed;
  return attach_table(kPtrcHashTblShmKey, pending_shm_key, "PTRC_HASH_TBL", &gvar.ptrc_hash_shmid,
                      &gvar.ptrc_hash_tbl);
}

int take_max_que_cnt(const ConfigKey& key, const char* value) {
  std::int64_t number = 0;
  if (!parse_number(key, value, 1, kMaxQueues, &number)) return kFailed;
  gvar.msgq_cnt = static_cast<std::int32_t>(number);
  const std::int32_t que_cnt = load(gvar.que_info->que_cnt);
  if (que_cnt <= gvar.msgq_cnt) return 0;
  log_printf("<!> tran_init fail, que_cnt %d exceeds [MAX_QUE_CNT] %d", que_cnt, gvar.msgq_cnt);
  return kFailed;
}

int take_idle_release_sec(const ConfigKey& key, const char* value) {
  return parse_int32(key, value, &gvar.idle_release_sec);
}

int take_idle_release_2(const ConfigKey& key, const char* value) {
  return parse_int32(key, value, &gvar.idle_release_2);
}

int take_infinite_loop_base_cnt(const ConfigKey& key, const char* value) {
  return parse_int32(key, value, &gvar.infinite_loop_base_cnt);
}

int take_dbio_func_sign_no(const ConfigKey& key, const char* value) {
  return parse_int32(key, value, &gvar.dbio_func_sign_no);
}

int take_default_timeout_sec(const ConfigKey& key, const char* value) {
  return parse_int32(key, value, &gvar.default_timeout_sec);
}

int take_gid_range_position(const ConfigKey& key, const char* value) {
  return parse_int32(key, value, &write_qidx_idx_gid_rng_pos);
}

int take_gid_range_size(const ConfigKey& key, const char* value) {
  if (parse_int32(key, value, &write_qidx_idx_gid_rng_siz) != 0) return kFailed;
  const std::int64_t pos = write_qidx_idx_gid_rng_pos;
  const std::int64_t siz = write_qidx_idx_gid_rng_siz;
  if (pos < 0 || siz < 0 || pos + siz > kGid.width) {
    log_printf("<!> tran_init fail, [%s] %ld %ld reaches beyond the GID's %d characters", key.key,
               pos, siz, kGid.width);
    return kFailed;
  }
  log_printf("(I) write_qidx_idx_gid_rng - (offset : %d, size %d, gid[%d]~gid[%d]) ",
             write_qidx_idx_gid_rng_pos, write_qidx_idx_gid_rng_siz, write_qidx_idx_gid_rng_pos,
             write_qidx_idx_gid_rng_pos + write_qidx_idx_gid_rng_siz - 1);
  return 0;
}

int open_queues(const ConfigKey& key, const char* value) {
  if (!parse_ipc_key(key, value, kMostKey - (gvar.msgq_cnt - 1), &gvar.msgq_key)) return kFailed;
  for (int i = 0; i < gvar.msgq_cnt; ++i) {
    gvar.msgq_id[i] = create_msgq(gvar.msgq_key + i);
    if (gvar.msgq_id[i] < 0) {
      log_printf("<!> create fail msgq#%02d", i);
      return kFailed;
    }
  }
  return 0;
}

int take_dbio_signature(const ConfigKey&, const char* value) {
  put_zero_ended(gvar.dbio_func_signature, value);
  return 0;
}

struct ConfigRow {
  const ConfigKey& key;
  int token;
  bool is_reported;  // whether the log names the key when it is missing
  Take take;
};

// In the order in which they are read. Every key is required and has no default.
constexpr ConfigRow kConfigRows[] = {
    {kLogHome, 1, true, take_log_home},
    {kTongLogHome, 1, true, take_tong_log_home},
    {kLogInterface, 1, true, take_log_interface},
    {kTrSection, 1, false, take_tr_section},
    {kQueInfoShmKey, 1, true, attach_que_info},
    {kIdleThreadRelease, 1, true, take_idle_release_sec},
    {kIdleThreadRelease, 2, true, take_idle_release_2},
    {kInfiniteLoopBaseCnt, 1, true, take_infinite_loop_base_cnt},
    {kMaxQueCnt, 1, true, take_max_que_cnt},
    {kSvcHashTblShmKey, 1, false, keep_shm_key},
    {kSvcHashTblSemKey, 1, false, attach_svc_hash_tbl},
    {kPtrcHashTblShmKey, 1, false, keep_shm_key},
    {kPtrcHashTblSemKey, 1, false, attach_ptrc_hash_tbl},
    {kWriteQueIdxGidRng, 1, true, take_gid_range_position},
    {kWriteQueIdxGidRng, 2, true, take_gid_range_size},
    {kTranLogfMsgqKey, 1, true, open_queues},
    {kDbioFunc, 1, true, take_dbio_func_sign_no},
    {kDbioFunc, 2, true, take_dbio_signature},
    {kDefaultTimeoutSec, 1, true, take_default_timeout_sec},
};

int read_configuration(const char* path) {
  for (const ConfigRow& row : kConfigRows) {
    char value[kMaxConfigToken + 1];
    if (get_nth_token_in_file_section(path, row.key.section, row.key.key, row.token, value) < 0) {
      if (row.is_reported) log_printf("<!> tran_init fail, not found section [%s]", row.key.key);
      return kFailed;
    }
    if (const int rc = row.take(row.key, value); rc != 0) return rc;
  }
  return 0;
}

// A name of any length is read and then cut: a long container name must not stop the start.
bool read_host_name() {
  char name[256];
  if (gethostname(name, sizeof name) != 0) return false;
  put_zero_ended(gvar.host_name, Text(name, -1).clipped(sizeof name));
  return true;
}

// Bytes that queued telegrams may take.
std::int64_t tong_budget() {
  std::int64_t megabytes = kTongBudgetMb;
  const char* const value = secure_getenv("VARN_TONG_BUDGET_MB");
  if (value != nullptr && !to_number(value, 1, kMostTongBudgetMb, &megabytes))
    log_printf("<!> VARN_TONG_BUDGET_MB is not a number from 1 to %ld : %s, it counts as %ld",
               kMostTongBudgetMb, value, megabytes);
  return megabytes << 20;
}

bool set_up_tong() {
  return has_th_job_ended() && open_tong({gvar.que_info, gvar.host_name, tong_log_home_dir,
                                          gvar.cont_nm[0] != '\0' ? gvar.cont_nm : gvar.proc_nm,
                                          gvar.pid, tong_budget()});
}

}  // namespace

void set_proc_nm(char* proc_nm, char* cont_nm, std::int32_t pid) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
  std::FILE* const file = std::fopen(path, "re");
  if (file == nullptr) return;
  char name[31];
  if (std::fscanf(file, "%*d (%30[^)])", name) == 1) std::strcpy(proc_nm, name);
  load_text(cont_nm, init_cont_nm);
  std::fclose(file);
}

int tran_init() {
  if (is_started()) {
    VARN_LOG_LIMITED("<!> already TRAN_INIT API initialized.");
    return TRAN_RC_ALREADY_STARTED;
  }
  gvar.pid = getpid();
  set_proc_nm(gvar.proc_nm, gvar.cont_nm, gvar.pid);
  const char* settings = nullptr;
  for (const char* const name : {"TRAN_HOME", "TRAN_AGT_HOME", "TRAN_AGT_CFG_FILE"}) {
    settings = secure_getenv(name);  // the last of them
    if (settings == nullptr) {
      log_printf("<!> please, check environment-variable (%s)", name);
      return TRAN_RC_NO_ENVIRONMENT;
    }
  }
  gvar.dbio_func_sign_no = -1;
  const char* const numbering = secure_getenv("VARN_THREAD_ID");
  use_kernel_tid = numbering != nullptr && std::strcmp(numbering, "kernel") == 0;

  if (const int rc = read_configuration(settings); rc != 0) return rc;
  if (!read_host_name()) {
    log_printf("<!> tran_init fail, gethostname() error");
    return kFailed;
  }
  if (!set_up_tong()) {
    log_printf("<!> tran_init fail, create tong log deffered que create fail.");
    return kFailed;
  }
  start_tick_clock();
  return 0;
}

}  // namespace varn
