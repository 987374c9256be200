// Start, stop and admission.
#pragma once

#include <cstdint>

#include "core/gvar.h"
#include "util/shared_word.h"
#include "varn/tran.h"

namespace varn {

int start_agent();  // TRAN_INIT
int stop_agent();   // TRAN_DONE

// The error class (0, 1 or 2) of a finished call, for is_err_rc. The agent must be started.
int error_class(tran_call_rc& result);

inline bool is_started() { return load_acquire(gvar.init_mark) == kStarted; }

// Which log_flag_set bit a record type needs; 0 for one that none governs.
constexpr std::uint8_t log_flag_of(char rec_type) {
  const RecordKind* const kind = record_kind(rec_type);
  return kind == nullptr ? 0 : kind->log_flag;
}

// What check_gvar asks once the agent is known to be started: 0, or 99, 100, 101 or 126.
inline int admit(std::uint8_t log_flag) {
  const TRAN_LOGF_QUE_INFO& info = *gvar.que_info;
  if (load(info.magic_code) != kMagicReady) return TRAN_RC_NOT_READY;
  const std::int32_t que_cnt = load(info.que_cnt);
  if (gvar.que_info_shmid < 0 || que_cnt < 1 || que_cnt > kMaxQueues) return TRAN_RC_BAD_SEGMENT;
  if (load(gvar.svc_timeout_flag) != 0) return TRAN_RC_SVCTIMEOUT;
  if (log_flag != 0 && (load(info.log_flag_set) & log_flag) == 0) return TRAN_RC_SWITCHED_OFF;
  return TRAN_RC_OK;
}

}  // namespace varn
