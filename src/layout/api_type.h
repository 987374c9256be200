// Which exported call composes a record; some record kinds are validated differently for some
// calls.
#pragma once

#include <array>

namespace varn {

enum ApiType : int {
  kStartApi = 100,
  kEndApi,
  kErrorApi,
  kErrInfoApi,
  kCallInfoSApi,
  kCallInfoFApi,
  kSqlStmtApi,
  kInfoApi,
  kInfoExApi,
  kEventApi,
  kClhStartApi,
  kClhEndApi,
  kClhErrorApi,
  kFepStartApi,
  kFepEndApi,
  kFepErrorApi,
  kPtStartApi,
  kPtEndApi,
  kWebStartApi,
  kWebEndApi,
};
static_assert(kWebEndApi == 119);

// As messages name them, from kStartApi.
inline constexpr std::array api_type_nm{
    "TRAN_START_API",      "TRAN_END_API",        "TRAN_ERROR_API",     "TRAN_ERRINFO_API",
    "TRAN_CALLINFO_S_API", "TRAN_CALLINFO_F_API", "TRAN_SQL_STMT_API",  "TRAN_INFO_API",
    "TRAN_INFO_EX_API",    "TRAN_EVENT_API",      "TRAN_CLH_START_API", "TRAN_CLH_END_API",
    "TRAN_CLH_ERROR_API",  "TRAN_FEP_START_API",  "TRAN_FEP_END_API",   "TRAN_FEP_ERROR_API",
    "TRAN_PT_START_API",   "TRAN_PT_END_API",     "TRAN_WEB_START_API", "TRAN_WEB_END_API",
};
static_assert(api_type_nm.size() == kWebEndApi - kStartApi + 1);

}  // namespace varn
