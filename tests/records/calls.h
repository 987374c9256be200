// What the tests of calls and SQL share: named arguments, a service around them, and a clock that
// stands still until it is moved.
#pragma once

#include <string>
#include <vector>

#include "records/traced.h"

namespace varn::test {

struct CallArgs {
  Arg hdr_cd = {}, hdr_flag = {}, gid = {}, svc_id = {}, pid_str = {}, date_str = {}, time_str = {};
  Arg call_at = {}, call_src = {};
  int line = 0;
  int status = 0;  // at a call's end: its return code
  Arg func_nm = {}, label = {};
};

#define VARN_TEST_CALL                                                                        \
  VARN_TEST_HEAD, args.call_at.text, args.call_at.len, args.call_src.text, args.call_src.len, \
      args.line, args.status, args.func_nm.text, args.func_nm.len, args.label.text, args.label.len

inline int call_start(const CallArgs& args, int thread = kThread) {
  return TRAN_CALLINFO_S(VARN_TEST_CALL);
}
inline int call_end(const CallArgs& args, int thread = kThread) {
  return TRAN_CALLINFO_F(VARN_TEST_CALL);
}
inline int call_start(const char* func_nm) { return call_start({.func_nm = func_nm}); }
inline int call_end(const char* func_nm) { return call_end({.func_nm = func_nm}); }

// The traced process's clock, once it is set. A gettimeofday of the test program's own.
void set_clock(std::int64_t us);
void advance_clock(std::int64_t us);

inline constexpr std::int64_t kMorning = 1'790'000'000'000'000;  // 2026-09-21 14:13:20 UTC

// Traces what happens inside one service, the process's clock standing at kMorning.
class CallTest : public RecordTest {
 protected:
  std::vector<Record> in_service(const std::function<void()>& body) {
    collector.environment["TZ"] = "UTC0";
    return trace([&] {
      ASSERT_EQ(start(kService), 0);
      collector.read_all();
      set_clock(kMorning);
      body();
    });
  }

  static inline const ServiceArgs kService = {.gid = "GID-OF-CALLS", .svc_id = "SVC00001"};
};

// The texts of the records of a type.
inline std::vector<std::string> bodies_of(const std::vector<Record>& records, char type) {
  std::vector<std::string> bodies;
  for (const Record& record : records)
    if (type_of(record) == type) bodies.push_back(text_of(record, kCallBody.back()));
  return bodies;
}

}  // namespace varn::test
