// Every traced call in its shortest form, and what calls may return.
#pragma once

#include <algorithm>
#include <array>
#include <iterator>

#include "records/traced.h"

namespace varn::test {

inline constexpr char kGidA[] = "20240102030405GIDAAAAAAAAAAAAA01";
inline constexpr char kService[] = "SVC_A";

inline int start(int tid) { return start({.gid = kGidA, .svc_id = kService}, tid); }
inline int end(int tid) { return end({.gid = kGidA, .svc_id = kService}, tid); }
inline int error(int tid) { return error({.gid = kGidA, .svc_id = kService}, tid); }
inline int info(int tid, const char* svc_id = kService, const char* message = "text") {
  return info({.svc_id = svc_id, .message = message}, tid);
}
inline int event(int tid) {
  return event({.gid = kGidA, .svc_id = kService, .code = "9000", .message = "text"}, tid);
}

struct NamedResult {
  const char* name;
  int result;
};

// Every traced call once. Neither this nor is_documented() takes a lock or allocates: a process may
// be forked while its threads are there.
inline std::array<NamedResult, 9> call_everything(int tid) {
  const NoticeArgs notice = {.gid = kGidA, .svc_id = kService, .code = "9000", .message = "text"};
  return {{{"TRAN_START", start(tid)},
           {"TRAN_INFO", info(tid)},
           {"TRAN_INFO_EX", info_ex(notice, tid)},
           {"TRAN_EVENT", event(tid)},
           {"TRAN_ERRINFO", errinfo(notice, tid)},
           {"TRAN_ERROR", error(tid)},
           {"TRAN_END", end(tid)},
           {"check_gvar", check_gvar('1')},
           {"check_gvar, state alone", check_gvar('_')}}};
}
inline void expect_everything_returns(int code, int tid = -1) {
  for (const auto& [name, result] : call_everything(tid)) EXPECT_EQ(result, code) << name;
}

inline bool is_sent(int result) { return result >= 0 && result < kMaxQueues; }
inline bool is_documented(int result) {
  constexpr int kCodes[] = {99, 100, 101, 102, 103, 105, 107, 112, 113, 116, 118, 121, 123, 126};
  return is_sent(result) ||
         std::find(std::begin(kCodes), std::end(kCodes), result) != std::end(kCodes);
}

}  // namespace varn::test
