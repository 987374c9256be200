// Business and database calls: which are recorded, with what, and what they add up to.
#include "records/calls.h"

namespace varn::test {
namespace {

const std::string kAt = "1790000000.";  // start and end times of calls are of this second

TEST_F(CallTest, EveryLevelShowsItsOwnAndItsCallsTime) {
  TRAN_SET_DBCONN_INFO(-1, "LEDGERUSERLONG", "BANKDB");
  const auto records = in_service([&] {
    EXPECT_EQ(call_start(
                  {.call_at = "place", .call_src = "transfer.c", .line = 7, .func_nm = "transfer"}),
              0);
    advance_clock(100);
    EXPECT_EQ(call_start("dbSelect"), 0);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, 1403, nullptr, 0), 0);
    EXPECT_EQ(TRAN_SET_FETCH_INFO(kThread, 12, 4007, 33), 0);
    advance_clock(5000);
    EXPECT_EQ(call_end({.call_at = "ledger", .line = 8, .status = 3, .func_nm = "dbSelect"}), 0);
    EXPECT_EQ(call_start("dbUpdate"), 0);
    advance_clock(250);
    EXPECT_EQ(call_end({.call_src = "other.c", .func_nm = "dbUpdate", .label = "DB"}), 0);
    EXPECT_EQ(call_start("check"), 0);
    advance_clock(20);
    EXPECT_EQ(call_start("limit"), 0);
    EXPECT_EQ(call_end("limit"), 0);
    advance_clock(3);
    EXPECT_EQ(call_end("check"), 0);
    advance_clock(1'000'000);
    EXPECT_EQ(call_end({.line = 123456, .status = -3, .func_nm = "transfer"}), 0);
    EXPECT_EQ(call_start("again"), 0);
    EXPECT_EQ(call_end({.func_nm = "again", .label = "PROC"}), 0);
    EXPECT_EQ(end(kService), 0);
  });
  EXPECT_EQ(types_of(records), "BBCCCCI2");
  EXPECT_EQ(bodies_of(records, 'B'),
            (std::vector<std::string>{
                "2,10,0.005000,0.000000,0.000000,0.000000," + kAt + "000100," + kAt +
                    "005100,[][dbSelect at ledger (::00008){2}]#SQLCODE 1403, #RC 3 (line 33) "
                    "fetch 12 rows (4.7 ms) DB LEDGERUSER/BANKDB",
                "2,10,0.000250,0.000000,0.000000,0.000000," + kAt + "005100," + kAt +
                    "005350,[DB][dbUpdate at  (other.c::00000){3}]#SQLCODE 9999, #RC 0 (line 0) "
                    "fetch 0 rows(0.0 ms) DB LEDGERUSER/BANKDB"}));
  EXPECT_EQ(bodies_of(records, 'C'),
            (std::vector<std::string>{
                "3,10,0.000000,0.000000,0.000000,0.000000," + kAt + "005370," + kAt +
                    "005370,[METHOD][limit at  (::00000){5}]#RC 0",
                "2,10,0.000023,0.000023,0.000000,0.000000," + kAt + "005350," + kAt +
                    "005373,[METHOD][check at  (::00000){4}]#RC 0",
                "1,10,1.005373,1.000100,0.000023,0.005250," + kAt +
                    "000000,1790000001.005373,"
                    "[METHOD][transfer at  (transfer.c::123456){1}]#RC -3",
                "1,10,0.000000,0.000000,0.000000,0.000000,1790000001.005373,1790000001.005373,"
                "[PROC][again at  (::00000){6}]#RC 0"}));
  EXPECT_EQ(
      body_field(records[6], "message"),
      euc_kr("처리 모듈(함수)통계 [ 총 호출 6 건 ] [ Max Depth 3 ] [ BIZCALL(Method) 4건 (전체 "
             "Avg/Max 251.35/1005 ms, 개별 Max 1000 ms) ], [ DBIO 2건 (Avg/Max   2.62/5 ms) "
             "fetch 12 rows (4.7 ms), (DBConn LEDGERUSER/BANKDB) ]"));
  EXPECT_EQ(body_field(records[7], "dbio_elapsed_us"), "0000005250");
}

TEST_F(CallTest, RecordIsOfTheServiceAndTakesItsHeaderFromTheEnd) {
  const auto records = in_service([&] {
    const CallArgs other = {.gid = "OTHER", .svc_id = "OTHER"};
    CallArgs own_header = other;
    own_header.hdr_cd = "H1";
    own_header.pid_str = "PIDTEXT";
    own_header.date_str = "20300102";
    own_header.time_str = "030405678901";
    EXPECT_EQ(call_start(other), 0);
    EXPECT_EQ(call_end(own_header), 0);
    EXPECT_EQ(call_start(other), 0);
    EXPECT_EQ(call_end(other), 0);
  });
  ASSERT_EQ(types_of(records), "CC");
  EXPECT_EQ(std::string(records[0].view, 40), "C H1   GID-OF-CALLS                     ");
  EXPECT_EQ(text_of(records[0], kSvcId), "SVC00001");
  EXPECT_EQ(std::string(records[0].view + kPid.at, 9), "PIDTEXT  ");
  EXPECT_EQ(std::string(records[0].view + kDate.at, 22), "20300102 030405678901 ");
  EXPECT_EQ(text_of(records[1], kHdrCd), "");
  EXPECT_EQ(text_of(records[1], kPid), std::to_string(100'000'000 + pid()).substr(1));
  EXPECT_EQ(std::string(records[1].view + kDate.at, 22), "20260921 141320000000 ");
  EXPECT_EQ(records[0].length, 499U);
}

TEST_F(CallTest, LongTextsAreCutToTheirPlacesAndTheRecordTo350Bytes) {
  const auto records = in_service([&] {
    // Texts that end where their memory ends.
    const Arg name(guarded(std::string(70, 'n')), 90), place(guarded(std::string(200, 'p')), 200);
    EXPECT_EQ(call_start({.call_src = {guarded(std::string(120, 's')), 120}, .func_nm = name}), 0);
    EXPECT_EQ(std::string(entry().call_stack[0].call_src), std::string(100, 's'));
    EXPECT_EQ(call_end({.call_at = place, .func_nm = "n"}), 0);
  });
  ASSERT_EQ(types_of(records), "C");
  const std::string body = field_of(records[0], kCallBody.back());
  const std::string start = "[METHOD][" + std::string(70, 'n') + " at ";
  const std::size_t at = body.find(start);
  ASSERT_NE(at, std::string::npos) << body;
  EXPECT_EQ(body.substr(at + start.size()), std::string(350 - at - start.size(), 'p'));
}

TEST_F(CallTest, NameAtTheConfiguredPlaceMakesADatabaseCall) {
  const struct {
    const char* signature;
    Arg name;
    char type;
  } rows[] = {
      {"0 db", "db", 'B'},
      {"0 db", {"dbX", 1}, 'C'},
      {"0 db", {}, 'C'},
      {"3 io", "aaaioX", 'B'},
      {"3 io", "aa", 'C'},
      {"-1 db", "dbSelect", 'C'},
      {"0 abcdefgh", "abcdefgX", 'B'},
      {"0 abcdefgh", "abcdefX", 'C'},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.signature) + ' ' + (row.name.text ? row.name.text : "null"));
    collector.set_key(kDbioFunc, row.signature);
    const auto records = in_service([&] {
      EXPECT_EQ(call_start({.func_nm = row.name}), 0);
      EXPECT_EQ(entry().in_dbio, row.type == 'B');
      EXPECT_EQ(call_end({.func_nm = row.name}), 0);
    });
    EXPECT_EQ(types_of(records), std::string(1, row.type));
  }
}

TEST_F(CallTest, EndClosesTheInnermostCallAsItsOwnNameSays) {
  const auto records = in_service([&] {
    EXPECT_EQ(call_start("dbSelect"), 0);
    EXPECT_EQ(call_end("other"), 0);  // a business call's end, by its name
    entry().dbio_limit_us = 10;
    EXPECT_EQ(call_start("other"), 0);
    EXPECT_EQ(call_end("dbSelect"), 111);
    EXPECT_EQ(entry().call_top, 0);
    EXPECT_EQ(entry().call_nest, 0);
  });
  ASSERT_EQ(types_of(records), "C");
  EXPECT_NE(bodies_of(records, 'C')[0].find("[METHOD][dbSelect at"), std::string::npos);
}

TEST_F(CallTest, RefusedCallsCountAsFarAsTheyCame) {
  in_service([&] {
    PTRC_HASH_ENT& own = entry();
    using Counts = std::array<int, 3>;
    const auto counts = [&] { return Counts{own.call_top, own.call_nest, own.call_cnt}; };
    EXPECT_EQ(call_end("f"), 115) << "nothing is open";
    EXPECT_EQ(counts(), (Counts{0, 0, 0}));
    EXPECT_EQ(call_start("dbA"), 0);
    EXPECT_EQ(call_start("dbB"), 122);
    EXPECT_EQ(counts(), (Counts{1, 2, 2}));

    own.call_limit_us = 1000;
    own.dbio_limit_us = 2000;
    advance_clock(1999);
    EXPECT_EQ(call_end("dbB"), 111);
    EXPECT_EQ(counts(), (Counts{0, 1, 2}));
    EXPECT_EQ(call_start("f"), 0);
    advance_clock(999);
    EXPECT_EQ(call_end("f"), 110);

    own.trc_depth = 2;  // one more is open than the stack holds
    EXPECT_EQ(call_start("g"), 0);
    EXPECT_EQ(call_start("deep"), 0);
    EXPECT_EQ(counts(), (Counts{1, 3, 5})) << "too deep to be traced";
    EXPECT_EQ(call_end("deep"), 109);
    EXPECT_EQ(call_start("dbDeep"), 0) << "database calls are traced at any depth";
    EXPECT_EQ(counts(), (Counts{2, 3, 6}));
    own.call_nest = -1;
    EXPECT_EQ(call_end("h"), 115);
    own.call_nest = -2;
    EXPECT_EQ(call_start("h"), 115);
    EXPECT_EQ(counts(), (Counts{2, -1, 7}));
    EXPECT_EQ(end(kService), 0);
    EXPECT_EQ(call_start("f"), 123);
    EXPECT_EQ(call_end("dbF"), 123);
  });
  for (const char* const line :
       {"<!> depth error, function(f) call does not match the start and end.",
        "<!> log_type error, DBIO_TYPE {2-dbB} can't call in DBIO_TYPE {1-dbA}.",
        "<!> depth error, function(h) call.", "<!> call_trc_depth error, function(h) call."})
    EXPECT_EQ(collector.count_logged(line), 1) << line;
}

TEST_F(CallTest, ServicesWithoutDatabaseRecordsKeepTheirTimesAndSql) {
  collector.que_info().svc_filtering = 1;
  collector.add_service("SVC00001", {.trace_flags = 0xFF & ~0x08});
  const auto records = in_service([&] {
    // An inner service changes nothing of that.
    EXPECT_EQ(start({.gid = "GID-OF-CALLS", .svc_id = "INNER"}), 0);
    EXPECT_EQ(call_start("outer"), 0);
    EXPECT_EQ(call_start("dbA"), 0);
    const std::int64_t time[2] = {};
    EXPECT_EQ(TRAN_SQL_STMT(kThread, 0, nullptr, 0, nullptr, 0, 1, time, time, "SELECT 1"), 0);
    advance_clock(40);
    EXPECT_EQ(call_end("dbA"), 121);
    EXPECT_EQ(entry().sql_cnt, 1) << "its SQL stays pending";
    EXPECT_EQ(entry().dbio_elapsed_total, 40);
    EXPECT_EQ(call_end("outer"), 0);
    EXPECT_EQ(entry().sql_cnt, 0);
    collector.que_info().log_flag_set = 0x01;
    EXPECT_EQ(call_start("f"), 100) << "admission comes first";
    EXPECT_EQ(call_start("dbA"), 100);
  });
  ASSERT_EQ(types_of(records), "1C");
  EXPECT_TRUE(bodies_of(records, 'C')[0].starts_with("1,10,0.000040,0.000000,0.000000,0.000040,"));
}

TEST_F(CallTest, ClockThatStepsBackInsideCallsGivesThemNegativeTimes) {
  collector.que_info().fst_err_rc_set[5] = 1;
  const auto records = in_service([&] {
    EXPECT_EQ(call_start("outer"), 0);
    EXPECT_EQ(call_start("failed"), 0);
    advance_clock(-3'600'500'000);
    EXPECT_EQ(call_end({.status = -5, .func_nm = "failed"}), 0);
    EXPECT_EQ(call_end("outer"), 110);
    EXPECT_EQ(call_start("later"), 0);
    EXPECT_EQ(call_end("later"), 0);
    EXPECT_EQ(end(kService), 0);
  });
  ASSERT_EQ(types_of(records), "CCI2");
  EXPECT_TRUE(bodies_of(records, 'C')[0].starts_with("2,10,-3600.-500000,-3600.-500000,0.000000,"));
  EXPECT_EQ(text_of(records[3], kTime), "131319500000");
  EXPECT_EQ(body_field(records[3], "elapsed_us"), "0000000000");
}

TEST_F(CallTest, FirstFailedCallOfAServiceIsRecordedWithThoseAroundIt) {
  const struct {
    int status, rc, error_class;
    std::array<int, 3> codes;  // of the ends of two nested calls and one more
  } rows[] = {{0, -5, 2, {0, 0, 110}},
              {0, -5, 1, {0, 110, 110}},
              {0, -5, 0, {110, 110, 110}},
              {-1, -5, 2, {110, 110, 110}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.status << ' ' << row.error_class);
    collector.que_info().fst_err_rc_set[5] = static_cast<std::int8_t>(row.error_class);
    in_service([&] {
      entry().call_limit_us = 1'000'000;
      const CallArgs begin = {.status = row.status, .func_nm = "f"};
      const CallArgs finish = {.status = row.rc, .func_nm = "f"};
      EXPECT_EQ(call_start(begin) + call_start(begin), 0);
      EXPECT_EQ(call_end(finish), row.codes[0]);
      EXPECT_EQ(call_end(finish), row.codes[1]);
      EXPECT_EQ(call_start(begin), 0);
      EXPECT_EQ(call_end(finish), row.codes[2]) << "once a service";
    });
  }
}

TEST_F(CallTest, FiftyOneCallsOpenAndTheTracedDepthMayBeLess) {
  for (const int depth : {0, 1, 50, 51, 52, 255}) {
    SCOPED_TRACE(depth);
    collector.que_info().call_trc_depth = static_cast<std::uint32_t>(depth);
    in_service([&] {
      for (int i = 1; i <= 60; ++i) EXPECT_EQ(call_start("f"), i <= depth && i > 51 ? 115 : 0) << i;
      const int open = std::min(depth, 51);
      EXPECT_EQ(entry().call_top, open);
      advance_clock(10);
      for (int i = 60; i >= 1; --i) {
        const bool is_open = i > std::min(depth, 60) - open;
        EXPECT_EQ(call_end("f"), open == 0 ? 115 : i > depth ? 109 : is_open ? 0 : 115) << i;
      }
      EXPECT_EQ(entry().call_top, 0);
    });
  }
}

TEST_F(CallTest, ServiceThatEndedWithCallsOpenLeavesNothingToTheNext) {
  const auto records = in_service([&] {
    EXPECT_EQ(call_start("a"), 0);
    EXPECT_EQ(call_start("dbB"), 0);
    advance_clock(500);
    EXPECT_EQ(call_end("dbB"), 0);
    EXPECT_EQ(end(kService), 0);
    EXPECT_EQ(start(kService), 0);
    collector.read_all();
    EXPECT_EQ(call_start("a"), 0);
    EXPECT_EQ(call_start("b"), 0);
    advance_clock(10);
    EXPECT_EQ(call_end("b"), 0);
    EXPECT_EQ(call_end("a"), 0);
    EXPECT_EQ(end(kService), 0);
  });
  ASSERT_EQ(types_of(records), "CCI2");
  const std::string outer = bodies_of(records, 'C')[1];
  EXPECT_TRUE(outer.starts_with("1,10,0.000010,0.000000,0.000010,0.000000,")) << outer;
  const std::string statistics = body_field(records[2], "message");
  EXPECT_NE(statistics.find("BIZCALL(Method) 2"), std::string::npos) << statistics;
  EXPECT_NE(statistics.find("DBIO 0"), std::string::npos) << statistics;
  EXPECT_EQ(body_field(records[3], "elapsed_us"), "0000000010");
}

TEST_F(CallTest, TooManyCallsAreReportedOnceAServiceAndRaiseItsLimits) {
  collector.set_key(kInfiniteLoopBaseCnt, "2");
  collector.que_info().dbio_trc_limit = 300'000;
  const auto records = in_service([&] {
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(call_start("f"), 0);
      EXPECT_EQ(call_end({.hdr_cd = "H1", .func_nm = "f"}), 0);
    }
    EXPECT_EQ(call_start("f"), 0);
    EXPECT_EQ(call_end("f"), 110);
    EXPECT_EQ(entry().call_limit_us, 200'000);
    EXPECT_EQ(entry().dbio_limit_us, 300'000);
    EXPECT_EQ(entry().sql_limit_us, 200'000);
    EXPECT_EQ(call_start("f"), 0);
    advance_clock(200'000);
    EXPECT_EQ(call_end("f"), 0);
    EXPECT_EQ(end(kService), 0);
    EXPECT_EQ(start(kService), 0);
    EXPECT_EQ(call_start("f"), 0);
    EXPECT_EQ(call_end("f"), 0) << "the next service has its own limits";
  });
  ASSERT_EQ(types_of(records), "CCVCI21C");
  const Record& event = records[2];
  EXPECT_EQ(body_field(event, "code"), "1300");
  EXPECT_EQ(body_field(event, "chnl_class"), "O");
  EXPECT_EQ(text_of(event, kHdrCd), "H1");
  EXPECT_EQ(text_of(event, kGid), "GID-OF-CALLS");
  EXPECT_EQ(text_of(event, kSvcId), "SVC00001");
  EXPECT_EQ(
      body_field(event, "message"),
      euc_kr("서비스(SVC00001        ) 수행 도중, BIZCALL(Method) 또는 DBIO함수 과다 호출(기준 "
             "2건초과) 증상이 발견되었습니다."));
}

TEST_F(CallTest, GarbageInTheSharedStackEndsInACodeAndNoCrash) {
  in_service([&] {
    PTRC_HASH_ENT& own = entry();
    for (const int call_top : {-128, -1, 52, 127}) {
      own.call_top = static_cast<std::int8_t>(call_top);
      own.call_nest = 0;
      EXPECT_EQ(call_start("f"), 115) << call_top;
      EXPECT_EQ(call_end("f"), 115) << call_top;
      EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, -1, "x", 1), 115) << call_top;
    }
    own.call_top = 51;
    own.call_last_top = 127;
    own.call_nest = own.call_cnt = INT32_MAX;
    own.trc_depth = 127;
    EXPECT_EQ(call_start("f"), 115);
    own.call_nest = 10;
    std::memset(static_cast<void*>(own.call_stack), 0xFF, sizeof own.call_stack);
    std::memset(own.db_user, 'u', sizeof own.db_user);
    EXPECT_EQ(call_end("f"), 0);
    std::memset(static_cast<void*>(own.sql_ent), 0xFF, sizeof own.sql_ent);
    own.call_stack[49].type = 'B';
    own.call_last_top = -128;
    own.sql_cnt = INT32_MAX;
    EXPECT_EQ(call_end("dbF"), 0);
  });
}

}  // namespace
}  // namespace varn::test
