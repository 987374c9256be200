// The collector's segment of tuning values. It creates and fills it; traced processes attach it and
// read each word when they use it. Byte order is the host's.
#pragma once

#include <cstdint>
#include <type_traits>

#include "layout/pin.h"

namespace varn {

inline constexpr std::uint32_t kMagicReady = 0xAAAAAAAA;
inline constexpr int kMaxQueues = 16;

struct TRAN_LOGF_QUE_INFO {
  std::int32_t que_cnt;             // trace queues in use, 1 to 16
  std::uint32_t que_mask;           // que_cnt - 1; applied to the GID's hash
  std::uint32_t magic_code;         // kMagicReady once the rest is filled
  std::uint8_t log_flag_set;        // record kinds switched on, see kLogFlags
  std::int8_t fst_err_rc_set[128];  // class 0, 1 or 2 of each return-code magnitude
  std::uint8_t padding1[3];
  std::uint32_t call_trc_depth;
  std::uint8_t padding2[4];
  std::uint64_t call_trc_limit;  // microseconds, as the two below
  std::uint64_t dbio_trc_limit;
  std::uint64_t sql_trc_limit;
  std::uint8_t svc_filtering;  // 0 off, 1 by the service table, 2 by it strictly
  std::uint8_t unused1;
  char tong_log_flag;  // '1': whole telegrams are logged
  std::uint8_t unused2;
  std::uint32_t que_fail_cnt[kMaxQueues];  // failed sends; every traced process adds, atomically
  std::uint8_t unused3[4];
};
VARN_PIN(TRAN_LOGF_QUE_INFO, que_cnt, 0);
VARN_PIN(TRAN_LOGF_QUE_INFO, que_mask, 4);
VARN_PIN(TRAN_LOGF_QUE_INFO, magic_code, 8);
VARN_PIN(TRAN_LOGF_QUE_INFO, log_flag_set, 12);
VARN_PIN(TRAN_LOGF_QUE_INFO, fst_err_rc_set, 13);
VARN_PIN(TRAN_LOGF_QUE_INFO, call_trc_depth, 144);
VARN_PIN(TRAN_LOGF_QUE_INFO, call_trc_limit, 152);
VARN_PIN(TRAN_LOGF_QUE_INFO, dbio_trc_limit, 160);
VARN_PIN(TRAN_LOGF_QUE_INFO, sql_trc_limit, 168);
VARN_PIN(TRAN_LOGF_QUE_INFO, svc_filtering, 176);
VARN_PIN(TRAN_LOGF_QUE_INFO, tong_log_flag, 178);
VARN_PIN(TRAN_LOGF_QUE_INFO, que_fail_cnt, 180);
static_assert(sizeof(TRAN_LOGF_QUE_INFO) == 248);
static_assert(std::is_standard_layout_v<TRAN_LOGF_QUE_INFO>);

}  // namespace varn
