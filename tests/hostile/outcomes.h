// What each exported call may return, and how many records it may send.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "layout/que_info.h"
#include "varn/tran.h"

namespace varn::test {

// A set of result codes; those of refusals lie between 99 and 126.
template <typename... Code>
constexpr std::uint32_t codes(Code... code) {
  return (0U | ... | (1U << (code - 96)));
}
inline constexpr std::uint32_t kFailed = 1U << 0;       // -1
inline constexpr std::uint32_t kQueueNumber = 1U << 1;  // 0 to 15
inline constexpr std::uint32_t kOk = 1U << 2;           // 0
inline constexpr std::uint32_t kAnything = ~0U;         // a value, not a code

inline constexpr std::uint32_t kNoContext = codes(103, 107, 116);
inline constexpr std::uint32_t kAdmitted = kNoContext | codes(99, 100, 101, 126);
inline constexpr std::uint32_t kSent = kQueueNumber | kAdmitted | codes(102, 105, 118, 121);
inline constexpr std::uint32_t kInService = kSent | codes(123);
inline constexpr std::uint32_t kStart = kOk | codes(103, 104, 105, 106, 107, 116, 117);

struct Outcome {
  std::string_view name;
  std::uint32_t codes;
  int most_records = 0;
};

inline constexpr Outcome kOutcomes[] = {
    {"TRAN_INIT", kStart, 1},
    {"TRAN_DONE", kOk | kFailed},
    {"TRAN_START", kInService, 3},
    {"TRAN_END", kInService, 6},
    {"TRAN_ERROR", kInService | codes(112), 1},
    {"TRAN_STARTX", kInService | kStart | codes(124), 6},
    {"TRAN_ENDX", kInService | codes(112, 124), 107},
    {"TRAN_PT_START", kInService, 3},
    {"TRAN_PT_END", kInService, 3},
    {"TRAN_CLH_START", kSent, 1},
    {"TRAN_CLH_END", kSent, 1},
    {"TRAN_CLH_ERROR", kSent, 1},
    {"TRAN_WEB_START", kSent, 1},
    {"TRAN_WEB_END", kSent, 1},
    {"TRAN_FEP_START", kOk | kAdmitted},
    {"TRAN_FEP_END", kOk | kAdmitted},
    {"TRAN_INFO", kInService, 1},
    {"TRAN_INFO_EX", kInService, 1},
    {"TRAN_EVENT", kInService, 1},
    {"TRAN_ERRINFO", kInService | codes(112), 1},
    {"TRAN_SET_SVCTIMEOUT", kOk | kNoContext, 1},
    {"TRAN_CALLINFO_S", kOk | kAdmitted | codes(102, 112, 115, 118, 121, 122, 123)},
    {"TRAN_CALLINFO_F", kInService | codes(109, 110, 111, 112, 115), 200},
    {"TRAN_SQL_ID", kOk | kAdmitted | codes(102)},
    {"TRAN_SQL_STMT", kInService | codes(112, 113, 115, 125), 200},
    {"TRAN_SET_TIME", kOk | kAdmitted},
    {"TRAN_CHECK_SQL_TIME", kOk | kFailed | kNoContext},
    {"TRAN_GET_HASH_CODE", kAnything},
    {"TRAN_SET_DBIO_STS", kOk | kNoContext},
    {"TRAN_SET_SQLCA_INFO", kOk | kNoContext | codes(115, 123), 1},
    {"TRAN_SET_DBCONN_INFO", kOk},
    {"TRAN_SET_FETCH_INFO", kOk | kNoContext},
    {"TRAN_ADD_PROFILE", kOk},
    {"TRAN_DEL_PROFILE", kOk},
    {"__cyg_profile_func_enter", kOk},
    {"__cyg_profile_func_exit", kOk, 200},
    {"check_gvar", kOk | kAdmitted | codes(102)},
    {"get_log_flag_set", kAnything},
    {"set_fst_err_rc_set", kOk | kFailed},
    {"is_err_rc", kQueueNumber},
    {"set_log_field", kOk},
    {"read_config", kQueueNumber},
    {"print_logo", kOk},
};

constexpr const Outcome& outcome_of(std::string_view name) {
  return *std::find_if(std::begin(kOutcomes), std::end(kOutcomes),
                       [name](const Outcome& outcome) { return outcome.name == name; });
}

constexpr bool is_documented(const Outcome& outcome, int result) {
  if (outcome.codes == kAnything) return true;
  if (result == -1) return (outcome.codes & kFailed) != 0;
  if (result == 0) return (outcome.codes & (kQueueNumber | kOk)) != 0;
  if (result > 0 && result < kMaxQueues) return (outcome.codes & kQueueNumber) != 0;
  return result >= 99 && result <= 126 && (outcome.codes & codes(result)) != 0;
}
constexpr bool is_documented(std::string_view name, int result) {
  return is_documented(outcome_of(name), result);
}

}  // namespace varn::test
