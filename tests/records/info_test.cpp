// Information, events and error information, and the service time-out.
#include <ctime>

#include "records/traced.h"

namespace varn::test {
namespace {

using Notice = RecordTest;

TEST_F(Notice, InformationBelongsToTheGivenOrTheInnermostService) {
  const auto records = trace([&] {
    EXPECT_EQ(info({.gid = {"GIVEN-GID", 5}, .message = "m"}), TRAN_RC_DEPTH);
    EXPECT_EQ(info({.message = "m"}), TRAN_RC_DEPTH);
    EXPECT_EQ(info({.svc_id = "GIVEN", .message = "outside"}), 0);
    EXPECT_EQ(info_ex({.message = "outside"}), 0);
    EXPECT_EQ(event({.message = "outside"}), 0);
    EXPECT_EQ(errinfo({.gid = "G", .svc_id = "S", .message = "m"}), TRAN_RC_DEPTH);
    ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
    ASSERT_EQ(start({.gid = "G1", .svc_id = "S2"}), 0);
    EXPECT_EQ(info({.message = "inside"}), 0);
    EXPECT_EQ(info({.gid = "G2", .message = "inside"}), 0);
    EXPECT_EQ(info({.svc_id = {"", 0}, .message = "inside"}), 0);
    EXPECT_EQ(info_ex({.message = "inside"}), 0);
    EXPECT_EQ(event({.message = "inside"}), 0);
    EXPECT_EQ(errinfo({.gid = "G2", .svc_id = "S3", .message = "inside"}), 0);
  });
  struct {
    char type;
    const char *gid, *svc_id;
  } const cases[] = {{'I', "", "GIVEN"}, {'X', "", ""},     {'V', "", ""},     {'1', "G1", "S1"},
                     {'1', "G1", "S2"},  {'I', "G1", "S2"}, {'I', "G2", "S2"}, {'I', "G1", ""},
                     {'X', "G1", ""},    {'V', "", ""},     {'E', "G1", "S2"}};
  ASSERT_EQ(records.size(), std::size(cases));
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(type_of(records[i]), cases[i].type) << i;
    EXPECT_EQ(text_of(records[i], kGid), cases[i].gid) << i;
    EXPECT_EQ(text_of(records[i], kSvcId), cases[i].svc_id) << i;
  }
  const std::string thread = "|-|" + std::to_string(pid()) + "|-|4660|";
  for (const char* const gid : {"GIVEN", ""})
    EXPECT_EQ(
        collector.count_logged("<!> INFO service_depth error!(val:0 (MAX:10)), GID-PID-TID |" +
                               std::string(gid) + thread),
        1);
}

TEST_F(Notice, EachKindIsSwitchedOffByItsOwnFlagAlone) {
  struct {
    std::uint8_t flag;
    std::vector<int> codes;
  } const cases[] = {
      {0x01, {100, 0, 0, 0, 123, 123, 100}}, {0x02, {0, 0, 0, 0, 100, 100, 0}},
      {0x04, {0, 0, 0, 100, 0, 0, 0}},       {0x20, {0, 100, 0, 0, 0, 0, 0}},
      {0x40, {0, 0, 100, 0, 0, 0, 0}},       {0x98, {0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.flag));
    trace([&] {
      collector.que_info().log_flag_set = static_cast<std::uint8_t>(~c.flag);
      const std::vector<int> codes = {start({.gid = "G", .svc_id = "S"}),
                                      info({.svc_id = "S"}),
                                      info_ex({}),
                                      event({}),
                                      errinfo({}),
                                      error({}),
                                      end({})};
      EXPECT_EQ(codes, c.codes);
    });
  }
}

TEST_F(Notice, AServiceTimeOutTellsWhatTheThreadWasDoingAndEndsTracing) {
  const std::string begin = euc_kr("TPSVCTIMEOUT(tpsvctimeout call)이 감지되었습니다.(경과시간 ");
  struct {
    const char* name;
    int call_top;
    bool in_service;
    std::string end;  // of the message, behind the seconds; empty: none is sent
  } const cases[] = {
      {"no open call", 0, true, " sec) [SVC1            ]"},
      {"an open call", 2, true,
       " sec) [SVC1            ][#2-B17] db_read at transfer (bank.cpp::00042)"
       "[07:13:20.000123]"},
      {"a negative count of calls", -128, true, " sec) [SVC1            ]"},
      {"more calls than there may be", 127, true,
       " sec) [SVC1            ][#51-B17] db_read at transfer (bank.cpp::00042)"
       "[07:13:20.000123]"},
      {"no service", 0, false, ""},
  };
  collector.environment["TZ"] = "KST-9";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::int64_t before = time(nullptr);
    const auto records = trace([&] {
      if (c.in_service) {
        ASSERT_EQ(start({.gid = "G", .svc_id = "SVC1"}), 0);
      } else {
        ASSERT_EQ(event({}), 0);
      }
      entry().svc_start_time.sec = 1'700'000'000;
      entry().call_top = static_cast<std::int8_t>(c.call_top);
      for (const int place : {1, 50}) {
        CallEntry& open_call = entry().call_stack[place];
        open_call.start_tv = {1'700'000'000, 123};
        open_call.type = 'B';
        open_call.seq = 17;
        std::strcpy(open_call.func_nm, "db_read");
        std::strcpy(open_call.call_at, "transfer");
        std::strcpy(open_call.call_src, "bank.cpp");
        open_call.line = 42;
      }
      EXPECT_EQ(TRAN_SET_SVCTIMEOUT(kThread), 0);
      EXPECT_EQ(entry().svc_timeout_seen, 1);
      EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), TRAN_RC_SVCTIMEOUT);
      EXPECT_EQ(end({}), TRAN_RC_SVCTIMEOUT);
      EXPECT_EQ(info({.svc_id = "S"}, 1), TRAN_RC_SVCTIMEOUT) << "other threads too";
      EXPECT_EQ(TRAN_SET_SVCTIMEOUT(kThread), 0);
      EXPECT_EQ(TRAN_DONE(), 0);
      collector.que_info().log_flag_set = 0xFF & ~0x04;
      EXPECT_EQ(TRAN_INIT(), 0);
      collector.que_info().log_flag_set = 0xFF;
      EXPECT_EQ(info_ex({}), 0) << "until the next start";
    });
    const std::string first = c.in_service ? "1" : "V";
    ASSERT_EQ(types_of(records), first + (c.end.empty() ? "X" : "IX"));
    if (c.end.empty()) continue;
    const std::string message = body_field(records[1], "message");
    EXPECT_EQ(message.substr(0, begin.size()), begin);
    std::size_t digits = 0;
    const std::int64_t elapsed = std::stol(message.substr(begin.size()), &digits);
    EXPECT_GE(elapsed, before - 1'700'000'000);
    EXPECT_LE(elapsed, time(nullptr) - 1'700'000'000);
    EXPECT_EQ(message.substr(begin.size() + digits), c.end);
    EXPECT_EQ(text_of(records[1], kGid), "G");
    EXPECT_EQ(text_of(records[1], kSvcId), "SVC1");
  }
}

TEST_F(Notice, AServiceTimeOutWithGarbageInTheEntryStillEndsTracing) {
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
    std::memset(static_cast<void*>(entry().call_stack), 0xFF, sizeof entry().call_stack);
    std::memset(entry().main_svc_id, 0xFF, sizeof entry().main_svc_id);
    entry().svc_start_time = {INT64_MIN, INT64_MIN};
    entry().call_top = 51;
    EXPECT_EQ(TRAN_SET_SVCTIMEOUT(kThread), 0);
    EXPECT_EQ(end({}), TRAN_RC_SVCTIMEOUT);
  });
  EXPECT_EQ(types_of(records), "1I");
}

}  // namespace
}  // namespace varn::test
