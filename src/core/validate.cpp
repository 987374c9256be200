#include "core/validate.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>

#include "core/filter.h"
#include "core/gvar.h"
#include "core/record.h"
#include "hash/get_svc_hash.h"
#include "util/log_printf.h"
#include "util/shared_word.h"

namespace varn {
namespace {

constexpr std::int8_t kSnapshotTrcDepth = 50;

std::int64_t limit_us(std::uint64_t limit) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(std::min(limit, kMost));
}

std::int8_t depth_of(std::uint32_t depth) {
  return static_cast<std::int8_t>(std::min<std::uint32_t>(depth, 127));
}

void reset_call_counters(PTRC_HASH_ENT& entry) {
  store(entry.call_top, std::int8_t{0});
  store(entry.call_last_top, std::int8_t{0});
  store(entry.call_nest, 0);
  store(entry.call_cnt, 0);
  store(entry.dbio_elapsed_total, std::int64_t{0});
  store(entry.err_rc_seen, std::uint8_t{0});
  store(entry.svc_timeout_seen, std::uint8_t{0});
}

struct TraceLimits {
  std::int8_t depth;
  std::int64_t call_us;
  std::int64_t dbio_us;
  std::int64_t sql_us;
};

void set_limits(PTRC_HASH_ENT& entry, const TraceLimits& limits) {
  store(entry.trc_depth, limits.depth);
  store(entry.call_limit_us, limits.call_us);
  store(entry.dbio_limit_us, limits.dbio_us);
  store(entry.sql_limit_us, limits.sql_us);
}

TraceLimits limits_of(const SVC_HASH_ENT& svc) {
  return {depth_of(load(svc.call_trc_depth)), limit_us(load(svc.call_trc_limit)),
          limit_us(load(svc.dbio_trc_limit)), limit_us(load(svc.sql_trc_limit))};
}

TraceLimits default_limits() {
  const TRAN_LOGF_QUE_INFO& info = *gvar.que_info;
  return {depth_of(load(info.call_trc_depth)), limit_us(load(info.call_trc_limit)),
          limit_us(load(info.dbio_trc_limit)), limit_us(load(info.sql_trc_limit))};
}

// An empty code matches nothing.
bool snapshot_matches(const PTRC_HASH_ENT& entry, Text snap_cd) {
  if (!snap_cd.given() || load(entry.snapshot_state) != kSnapshotArmed) return false;
  char armed[sizeof entry.snapshot_tx_cd];
  std::memcpy(armed, entry.snapshot_tx_cd, sizeof armed);
  const std::string_view wanted(armed, strnlen(armed, sizeof armed));
  return !wanted.empty() && snap_cd.clipped(kChnlTypCd.width).starts_with(wanted);
}

int validate_start(MTR_CXT_VAR& var, const RecordKind& kind, const char* svc_id, Text snap_cd) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  const bool outermost = var.svc_depth == 1;
  const bool filtering = load(gvar.que_info->svc_filtering) != 0;
  if (outermost) var.svc = filtering ? get_svc_hash(*gvar.svc_hash_tbl, svc_id) : nullptr;

  switch (service_filter(var, kind.svc_flag)) {
    case Filter::kRefuse:
      return TRAN_RC_FILTERED;
    case Filter::kPass:
      if (const SVC_HASH_ENT* const svc = load(var.svc); outermost && svc != nullptr) {
        reset_call_counters(entry);
        set_limits(entry, limits_of(*svc));
      }
      return TRAN_RC_OK;
    case Filter::kGoOn:
      break;
  }
  if (!is_switched_on(kind.log_flag) && snapshot_state(var) == kSnapshotNone)
    return TRAN_RC_SWITCHED_OFF;
  if (!outermost) return TRAN_RC_OK;
  reset_call_counters(entry);
  if (snapshot_matches(entry, snap_cd)) {
    set_limits(entry, {kSnapshotTrcDepth, 0, 0, 0});
    store(entry.snapshot_state, static_cast<std::uint8_t>(kSnapshotRunning));
  } else {
    set_limits(entry, default_limits());
  }
  return TRAN_RC_OK;
}

int validate_end(MTR_CXT_VAR& var, const RecordKind& kind) {
  const Filter filter = service_filter(var, kind.svc_flag);
  if (filter == Filter::kPass) return TRAN_RC_OK;
  if (filter == Filter::kRefuse) return TRAN_RC_FILTERED;
  const std::uint8_t snapshot = snapshot_state(var);
  if (!is_switched_on(kind.log_flag) && snapshot != kSnapshotRunning) return TRAN_RC_SWITCHED_OFF;
  if (var.svc_depth != 1) return TRAN_RC_OK;
  store(var.ptrc->trc_depth, std::int8_t{0});
  var.svc = nullptr;
  if (snapshot == kSnapshotRunning)
    store(var.ptrc->snapshot_state, static_cast<std::uint8_t>(kSnapshotFinished));
  return TRAN_RC_OK;
}

// Client-handler and web calls open no service level of their own.
constexpr bool is_flat(ApiType api_type) {
  return api_type == kClhStartApi || api_type == kClhEndApi || api_type == kClhErrorApi ||
         api_type == kWebStartApi || api_type == kWebEndApi;
}

constexpr bool needs_open_service(char rec_type, ApiType api_type) {
  switch (rec_type) {
    case '9':
    case 'E':
      return !is_flat(api_type);
    case 'B':
    case 'C':
    case 'Q':
      return true;
    default:
      return false;
  }
}

void log_other_owner(const MTR_CXT_VAR& var) {
  VARN_LOG_LIMITED("<!> PTRC HASH (pid %d, tid %lu) is not equal to MTR_CXT_VAR (pid %d, tid %lu)",
                   load(var.ptrc->ent_pid), load(var.ptrc->ent_tid), var.pid, var.tid);
}

int entry_fault(const MTR_CXT_VAR& var, char rec_type) {
  const int rc = entry_fault(var);
  if (rc == TRAN_RC_FOREIGN_ENTRY && (rec_type == '1' || rec_type == '2')) log_other_owner(var);
  return rc;
}

// With the record type known to the compiler, which leaves out what other kinds are asked.
template <char kRecType>
[[gnu::flatten]] int validate(MTR_CXT_VAR& var, ApiType api_type, TRAN_LOGF_QUE_DATA& record,
                              Text svc_id, Text snap_cd) {
  constexpr const RecordKind& kind = kKind<kRecType>;
  if (const int rc = entry_fault(var, kRecType); rc != 0) return rc;
  if (needs_open_service(kRecType, api_type) && !has_open_service(var)) return TRAN_RC_NO_SERVICE;
  if (kRecType == 'Q' && load(var.ptrc->sql_cnt) > kSqlEntries) return TRAN_RC_TOO_MANY_SQL;
  put_field<kSvcId>(record.view, svc_id);

  if constexpr (kRecType == '1') return validate_start(var, kind, record.view + kSvcId.at, snap_cd);
  if constexpr (kRecType == '2') return validate_end(var, kind);
  if constexpr (kRecType == 'B') return filter_dbio(var);
  return filter_and_flag(var, kind, kRecType == 'V' ? kSnapshotFinished : kSnapshotRunning);
}

}  // namespace

int trace_validate(MTR_CXT_VAR& var, char rec_type, ApiType api_type, TRAN_LOGF_QUE_DATA& record,
                   Text svc_id, Text snap_cd) {
  switch (rec_type) {
#define VARN_CASE(type) \
  case type:            \
    return validate<type>(var, api_type, record, svc_id, snap_cd)
    VARN_CASE('1');
    VARN_CASE('2');
    VARN_CASE('9');
    VARN_CASE('B');
    VARN_CASE('C');
    VARN_CASE('E');
    VARN_CASE('I');
    VARN_CASE('Q');
    VARN_CASE('V');
    VARN_CASE('X');
#undef VARN_CASE
    default:
      const int rc = entry_fault(var, rec_type);
      return rc != 0 ? rc : TRAN_RC_UNKNOWN_TYPE;
  }
}

}  // namespace varn
