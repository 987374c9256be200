// What the collector's settings say of a record: service filtering, kinds switched on, snapshots.
#pragma once

#include <cstdint>

#include "core/gvar.h"
#include "layout/gvar.h"
#include "util/shared_word.h"
#include "varn/tran.h"

namespace varn {

enum class Filter { kPass, kRefuse, kGoOn };

// What service filtering says of a record kind with this bit in a service's trace flags.
inline Filter service_filter(const MTR_CXT_VAR& var, std::uint8_t svc_flag) {
  const std::uint8_t filtering = load(gvar.que_info->svc_filtering);
  if (filtering == 0) return Filter::kGoOn;
  if (const SVC_HASH_ENT* const svc = load(var.svc); svc != nullptr)
    return (load(svc->trace_flags) & svc_flag) != 0 ? Filter::kPass : Filter::kRefuse;
  return filtering == 2 ? Filter::kRefuse : Filter::kGoOn;
}

inline bool is_switched_on(std::uint8_t log_flag) {
  return (load(gvar.que_info->log_flag_set) & log_flag) != 0;
}

inline std::uint8_t snapshot_state(const MTR_CXT_VAR& var) {
  const std::uint8_t state = load(var.ptrc->snapshot_state);
  return state <= kSnapshotFinished ? state : std::uint8_t{kSnapshotNone};
}

inline bool has_open_service(const MTR_CXT_VAR& var) {
  return var.log_bit != 0 && (var.log_bit & (kStartBit | kEndBit)) != (kStartBit | kEndBit);
}

// Whether the context has its own shared entry: 0, 116 or 118.
inline int entry_fault(const MTR_CXT_VAR& var) {
  if (var.cxt_init_flag == TRAN_RC_NO_ENTRY || var.ptrc == nullptr) return TRAN_RC_NO_ENTRY;
  const bool is_own = load(var.ptrc->ent_pid) == var.pid && load(var.ptrc->ent_tid) == var.tid;
  return is_own ? TRAN_RC_OK : TRAN_RC_FOREIGN_ENTRY;
}

// The filter, the flag, and for most kinds a running snapshot, which admits what is switched off.
inline int filter_and_flag(const MTR_CXT_VAR& var, const RecordKind& kind,
                           SnapshotState admitting) {
  if (kind.svc_flag != 0) {
    const Filter filter = service_filter(var, kind.svc_flag);
    if (filter == Filter::kPass) return TRAN_RC_OK;
    if (filter == Filter::kRefuse) return TRAN_RC_FILTERED;
  }
  if (is_switched_on(kind.log_flag) || snapshot_state(var) == admitting) return TRAN_RC_OK;
  return TRAN_RC_SWITCHED_OFF;
}

// Database calls are never refused by the flag: they go on being timed, and the entry says why they
// are not recorded.
inline int filter_dbio(const MTR_CXT_VAR& var) {
  constexpr const RecordKind& kind = kKind<'B'>;
  const Filter filter = service_filter(var, kind.svc_flag);
  const bool is_refused = filter == Filter::kRefuse;
  std::int8_t rec_off = 0;
  if (is_refused && var.svc != nullptr)
    rec_off = 'y';
  else if (filter == Filter::kGoOn && !is_switched_on(kind.log_flag) &&
           snapshot_state(var) != kSnapshotRunning)
    rec_off = 'd';
  store(var.ptrc->dbio_rec_off, rec_off);
  return is_refused && var.svc == nullptr ? TRAN_RC_FILTERED : TRAN_RC_OK;
}

// Of a business or database call's start or end: all of a validation but the service id, which a
// record gets when it is composed.
template <char kCallType>
int validate_call(const MTR_CXT_VAR& var) {
  if (const int rc = entry_fault(var); rc != 0) return rc;
  if (!has_open_service(var)) return TRAN_RC_NO_SERVICE;
  if constexpr (kCallType == 'B') return filter_dbio(var);
  return filter_and_flag(var, kKind<kCallType>, kSnapshotRunning);
}

}  // namespace varn
