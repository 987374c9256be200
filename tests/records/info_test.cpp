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
  std::string sent;
  for (const Record& record : records)
    sent += type_of(record) + (' ' + text_of(record, kGid)) + '/' + text_of(record, kSvcId) + ", ";
  EXPECT_EQ(sent,
            "I /GIVEN, X /, V /, 1 G1/S1, 1 G1/S2, I G1/S2, I G2/S2, I G1/, X G1/, V /, E G1/S2, ");
  const std::string thread = "|-|" + std::to_string(pid()) + "|-|4660|";
  for (const char* const gid : {"GIVEN", ""})
    EXPECT_EQ(
        collector.count_logged("<!> INFO service_depth error!(val:0 (MAX:10)), GID-PID-TID |" +
                               std::string(gid) + thread),
        1);
}

TEST_F(Notice, AServiceTimeOutTellsWhatTheThreadWasDoingAndEndsTracing) {
  const std::string begin = euc_kr("TPSVCTIMEOUT(tpsvctimeout call)이 감지되었습니다.(경과시간 ");
  const std::string service = " sec) [SVC1            ]";
  const std::string call = "-B17] db_read at transfer (bank.cpp::00042)[07:13:20.000123]";
  struct {
    int call_top;
    std::string end;  // of the message, behind the seconds; empty: no service and no message
  } const cases[] = {
      {0, service}, {2, service + "[#2" + call}, {-128, service}, {127, service + "[#51" + call},
      {0, ""},
  };
  collector.environment["TZ"] = "KST-9";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call_top);
    const std::int64_t now = time(nullptr);
    const auto records = trace([&] {
      ASSERT_EQ(c.end.empty() ? event({}) : start({.gid = "G", .svc_id = "SVC1"}), 0);
      entry().svc_start_time.sec = now - 90;
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
      EXPECT_EQ(end({}), TRAN_RC_SVCTIMEOUT);
      EXPECT_EQ(info({.svc_id = "S"}, 1), TRAN_RC_SVCTIMEOUT) << "other threads too";
      EXPECT_EQ(TRAN_SET_SVCTIMEOUT(kThread), 0);
      EXPECT_EQ(TRAN_DONE(), 0);
      EXPECT_EQ(TRAN_INIT(), 0);
      EXPECT_EQ(info_ex({}), 0) << "until the next start";
    });
    // The second start sends its event.
    ASSERT_EQ(types_of(records), c.end.empty() ? "VVX" : "1IVX");
    if (c.end.empty()) continue;
    const std::string message = body_field(records[1], "message");
    const std::int64_t elapsed = c.call_top > 0 ? now - 1'700'000'000 : 90;  // since a call's start
    EXPECT_TRUE(message == begin + std::to_string(elapsed) + c.end ||
                message == begin + std::to_string(elapsed + 1) + c.end)
        << message;
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
