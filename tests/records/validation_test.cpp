// Which records of a service are sent, as the collector's tuning says: through the exported calls.
#include "records/traced.h"

namespace varn::test {
namespace {

using Validated = RecordTest;

// What every call returns around and inside a service, in this order.
std::vector<int> all_calls(const char* svc_id) {
  std::vector<int> codes{start({.gid = "G", .svc_id = svc_id})};
  codes.push_back(info({.message = "m"}));
  codes.push_back(info_ex({.message = "m"}));
  codes.push_back(event({.message = "m"}));
  codes.push_back(errinfo({.message = "m"}));
  codes.push_back(error({}));
  codes.push_back(end({}));
  return codes;
}

TEST_F(Validated, ServiceFilteringFollowsTheServiceTable) {
  struct {
    const char* name;
    int filtering;
    bool is_listed;
    std::uint8_t trace_flags, log_flags;
    std::vector<int> codes;
  } const cases[] = {
      {"off: the table is not asked", 0, true, 0x00, 0xFF, {0, 0, 0, 0, 0, 0, 0}},
      {"by the table, a service with all bits", 1, true, 0xFF, 0xFF, {0, 0, 0, 0, 0, 0, 0}},
      {"by the table, one with the start bit alone",
       1,
       true,
       0x01,
       0xFF,
       {0, 121, 0, 121, 121, 121, 0}},
      {"by the table, one with the information bit alone",
       1,
       true,
       0x20,
       0xFF,
       {121, 0, 0, 121, 112, 112, 121}},
      {"by the table, one that is not listed", 1, false, 0, 0xFF, {0, 0, 0, 0, 0, 0, 0}},
      {"strictly, a service with all bits", 2, true, 0xFF, 0xFF, {0, 0, 0, 0, 0, 0, 0}},
      {"strictly, one that is not listed", 2, false, 0, 0xFF, {121, 121, 0, 121, 112, 112, 121}},
      {"a kind that is switched off, whatever the table says",
       2,
       true,
       0xFF,
       0xDF,
       {0, 100, 0, 0, 0, 0, 0}},
      {"all kinds switched off", 0, false, 0, 0x00, {100, 100, 100, 100, 100, 100, 100}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string svc_id = "SVC-" + std::to_string(&c - cases);
    if (c.is_listed) collector.add_service(svc_id, {.trace_flags = c.trace_flags});
    std::size_t sent = 0;
    const auto records = trace([&] {
      collector.que_info().svc_filtering = static_cast<std::uint8_t>(c.filtering);
      collector.que_info().log_flag_set = c.log_flags;
      EXPECT_EQ(all_calls(svc_id.c_str()), c.codes);
    });
    for (const int code : c.codes) sent += code == 0 ? 1 : 0;
    EXPECT_EQ(records.size(), sent);
  }
}

TEST_F(Validated, AServiceBringsItsOwnDepthAndLimitsOrTakesTheDefaults) {
  collector.add_service("LISTED", {0xFF, 7, 70, 71, 72});
  TRAN_LOGF_QUE_INFO& tuning = collector.que_info();
  tuning.svc_filtering = 1;
  tuning.call_trc_depth = 11;
  tuning.call_trc_limit = 110;
  tuning.dbio_trc_limit = 111;
  tuning.sql_trc_limit = 112;
  trace([&] {
    const auto expect_limits = [&](int depth, int call, int dbio, int sql) {
      EXPECT_EQ(entry().trc_depth, depth);
      EXPECT_EQ(entry().call_limit_us, call);
      EXPECT_EQ(entry().dbio_limit_us, dbio);
      EXPECT_EQ(entry().sql_limit_us, sql);
    };
    EXPECT_EQ(start({.gid = "G", .svc_id = "OTHER"}), 0);
    expect_limits(11, 110, 111, 112);
    EXPECT_EQ(start({.gid = "G", .svc_id = "LISTED"}), 0) << "an inner service changes nothing";
    expect_limits(11, 110, 111, 112);
    EXPECT_EQ(end({}), 0);
    entry().call_cnt = 0;
    EXPECT_EQ(end({}), 0);
    expect_limits(0, 110, 111, 112);
    entry().call_cnt = entry().call_nest = 9;
    entry().dbio_elapsed_total = 9;
    entry().err_rc_seen = entry().svc_timeout_seen = 1;
    EXPECT_EQ(start({.gid = "G", .svc_id = {"LISTED-NOT", 6}}), 0);
    expect_limits(7, 70, 71, 72);
    EXPECT_EQ(entry().call_cnt + entry().call_nest + entry().err_rc_seen, 0);
    EXPECT_EQ(entry().svc_timeout_seen + entry().dbio_elapsed_total, 0);
    EXPECT_EQ(end({}), 0);
  });
}

TEST_F(Validated, ARefusedStartOrEndMovesTheDepthAllTheSame) {
  collector.add_service("SVC", {.trace_flags = 0x20});
  collector.que_info().svc_filtering = 1;
  const auto records = trace([&] {
    EXPECT_EQ(start({.gid = "G1", .svc_id = "SVC"}), TRAN_RC_FILTERED);
    EXPECT_EQ(entry().entry_depth, 1);
    EXPECT_EQ(entry().tran_state, 'd') << "no service has started";
    collector.que_info().svc_filtering = 0;
    EXPECT_EQ(error({}), TRAN_RC_NO_SERVICE);
    EXPECT_EQ(errinfo({}), TRAN_RC_NO_SERVICE);
    // The end is admitted: it closes a level that has no start, so it knows no response time.
    entry().svc_start_time.sec = 1;
    entry().dbio_elapsed_total = 5;
    EXPECT_EQ(end({.gid = nullptr, .svc_id = "SVC"}), 0);
    EXPECT_EQ(entry().entry_depth, 0);
    EXPECT_EQ(error({}), TRAN_RC_DEPTH);

    EXPECT_EQ(start({.gid = "G2", .svc_id = "SVC"}), 0);
    collector.que_info().svc_filtering = 2;  // the service was started without the table
    EXPECT_EQ(end({}), TRAN_RC_FILTERED);
    EXPECT_EQ(entry().entry_depth, 0);
    EXPECT_EQ(end({}), TRAN_RC_DEPTH);

    collector.que_info().svc_filtering = 0;
    EXPECT_EQ(start({.gid = "G3", .svc_id = "SVC"}), 0);
    collector.que_info().log_flag_set = 0xFE;
    EXPECT_EQ(end({}), TRAN_RC_SWITCHED_OFF) << "refused before it is looked at";
    EXPECT_EQ(entry().entry_depth, 1);
  });
  ASSERT_EQ(types_of(records), "211");
  EXPECT_EQ(std::string(records[0].view, 377).find('\0'), std::string::npos)
      << "a level without a start is shown as text like any other";
  EXPECT_EQ(body_field(records[0], "elapsed_us"), "0000000000");
  EXPECT_EQ(body_field(records[0], "dbio_elapsed_us"), "0000000000");
  const std::string stray = " [ tid : 4660, log_bit : ";
  const std::string process = ", PID : " + std::to_string(pid()) + ", GID - Keep {";
  for (const std::string& line :
       {"[CHECK_LOG_BIT] NOK, set END_BIT" + stray + "0" + process,
        "[CHECK_LOG_BIT] NOK, set START_BIT" + stray + "2" + process,
        "[CHECK_LOG_BIT] NOK, set START_BIT" + stray + "1" + process + padded("G2", 32) +
            "} Now {G3}, SVC_ID - Keep {" + padded("SVC", 16) + "} Now {SVC} ]"})
    EXPECT_EQ(collector.count_logged(line), 1) << line;
}

TEST_F(Validated, AnEntryOfAnotherThreadIsRefusedAndLogged) {
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
    PTRC_HASH_ENT& mine = entry();
    mine.ent_tid = 9;
    EXPECT_EQ(info({.message = "m"}), TRAN_RC_FOREIGN_ENTRY);
    EXPECT_EQ(error({}), TRAN_RC_FOREIGN_ENTRY);
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), TRAN_RC_FOREIGN_ENTRY);
    mine.ent_tid = kThread;
    mine.ent_pid = 9;
    EXPECT_EQ(end({}), TRAN_RC_FOREIGN_ENTRY);
    mine.ent_pid = getpid();
    EXPECT_EQ(end({}), 0);
  });
  EXPECT_EQ(types_of(records), "12");
  const std::string pid_text = std::to_string(pid());
  const std::string context = ") is not equal to MTR_CXT_VAR (pid " + pid_text + ", tid 4660)";
  EXPECT_EQ(collector.count_logged("<!> PTRC HASH (pid " + pid_text + ", tid 9" + context), 1);
  EXPECT_EQ(collector.count_logged("<!> PTRC HASH (pid 9, tid 4660" + context), 1);
}

TEST_F(Validated, AThreadWithoutAnEntryIsRefusedUntilThereIsOne) {
  const auto records = trace([&] {
    TableStack& free = collector.ptrc_tbl().free_stack;
    const std::uint32_t count = std::exchange(free.count, 0U);
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), TRAN_RC_NO_ENTRY);
    EXPECT_EQ(info({.gid = "G", .svc_id = "S"}), TRAN_RC_NO_ENTRY);
    free.count = count;
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
  });
  ASSERT_EQ(types_of(records), "1");
  EXPECT_EQ(body_field(records[0], "depth"), "01");
  EXPECT_EQ(
      collector.count_logged("<!> TRAN_START get_mtr_cxt_var error, return code 116, tid 4660"), 1);
}

TEST_F(Validated, ASnapshotRunsFromAMatchingStartToItsEndAndIsReported) {
  struct {
    const char* name;
    const char* armed;
    Arg channel;
    bool matches;
  } const cases[] = {
      {"the whole channel", "ICT", {"ICT", 3}, true},
      {"its beginning", "I", "ICT", true},
      {"another one", "WEB", "ICT", false},
      {"more than the channel", "ICT", {"ICT", 2}, false},
      {"no code", "", "ICT", false},
      {"a service without a channel", "ICT", nullptr, false},
      {"a service with an empty one", "ICT", "", false},
      // A channel is three characters and need not be readable behind them.
      {"more than a channel of the largest length", "ICTX", {guarded("ICT"), INT32_MAX}, false},
      {"more than a channel without an end", "ICTX", {guarded("ICT"), -1}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto records = trace([&] {
      ASSERT_EQ(info({.gid = "G", .svc_id = "S"}), 0);
      entry().snapshot_state = kSnapshotArmed;
      std::strcpy(entry().snapshot_tx_cd, c.armed);
      entry().snapshot_aux = 77;
      entry().preset_time = {1'700'000'000, 250'000};
      ASSERT_EQ(start({.gid = "GID", .svc_id = "SVC1", .chnl_typ_cd = c.channel}), 0);
      EXPECT_EQ(entry().snapshot_state, c.matches ? kSnapshotRunning : kSnapshotArmed);
      EXPECT_EQ(entry().trc_depth, c.matches ? 50 : 10);
      entry().preset_time = {1'700'000'003, 100'000};
      EXPECT_EQ(end({.hdr_cd = "AB", .hdr_flag = "C", .gid = "GID", .svc_id = "GIVEN"}), 0);
      EXPECT_EQ(entry().snapshot_state, c.matches ? kSnapshotNone : kSnapshotArmed);
      EXPECT_EQ(entry().snapshot_aux, c.matches ? 0 : 77);
      EXPECT_EQ(entry().entry_depth, 0);
    });
    ASSERT_EQ(types_of(records), c.matches ? "I12V" : "I12");
    if (!c.matches) continue;
    const Record& report = records[3];
    EXPECT_EQ(field_of(report, kHdrCd) + field_of(report, kHdrFlag), "ABC");
    EXPECT_EQ(text_of(report, kGid), "GID");
    EXPECT_EQ(text_of(report, kSvcId), "GIVEN");
    EXPECT_EQ(body_field(report, "code"), "1302");
    EXPECT_EQ(body_field(report, "recv_svc_cd"), c.armed);
    EXPECT_EQ(body_field(report, "chnl_class"), "C");
    EXPECT_EQ(body_field(report, "message"),
              euc_kr("거래코드(" + std::string(c.armed) +
                     ")에 대한 SNAPSHOT 모니터링을 완료하였습니다. [서비스(SVC1            ) "
                     "응답시간: 0002850000 (us)]"));
  }
}

TEST_F(Validated, ASnapshotReportThatIsSwitchedOffIsTheEndsResult) {
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = "GID", .svc_id = "S"}), 0);
    entry().snapshot_state = kSnapshotRunning;
    collector.que_info().log_flag_set = 0xFB;
    EXPECT_EQ(end({}), TRAN_RC_SWITCHED_OFF);
    EXPECT_EQ(entry().snapshot_state, kSnapshotNone);
    EXPECT_EQ(entry().entry_depth, 0);
  });
  EXPECT_EQ(types_of(records), "12");
}

}  // namespace
}  // namespace varn::test
