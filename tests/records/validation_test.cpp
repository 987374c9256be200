// Which records of a service are sent, as the collector's tuning says: through the exported calls.
#include <algorithm>

#include "records/traced.h"

namespace varn::test {
namespace {

using Validated = RecordTest;

TEST_F(Validated, FlagsAndServiceFilteringDecideWhichKindsAreSent) {
  collector.add_service("STARTS", {.trace_flags = 0x01});
  struct {
    int filtering, log_flags;
    const char* svc_id;
    std::array<int, 7> codes;  // of start, info, info_ex, event, errinfo, error and end
  } const cases[] = {
      {0, 0xFE, "STARTS", {100, 0, 0, 0, 123, 123, 100}},
      {0, 0xFD, "STARTS", {0, 0, 0, 0, 100, 100, 0}},
      {0, 0xFB, "STARTS", {0, 0, 0, 100, 0, 0, 0}},
      {0, 0xDF, "STARTS", {0, 100, 0, 0, 0, 0, 0}},
      {0, 0xBF, "STARTS", {0, 0, 100, 0, 0, 0, 0}},
      {1, 0xFF, "STARTS", {0, 121, 0, 121, 121, 121, 0}},
      {2, 0xFF, "UNLISTED", {121, 121, 0, 121, 112, 112, 121}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    const auto records = trace([&] {
      collector.que_info().svc_filtering = static_cast<std::uint8_t>(c.filtering);
      collector.que_info().log_flag_set = static_cast<std::uint8_t>(c.log_flags);
      const std::array codes = {start({.gid = "G", .svc_id = c.svc_id}),
                                info({.svc_id = c.svc_id}),
                                info_ex({}),
                                event({}),
                                errinfo({}),
                                error({}),
                                end({})};
      EXPECT_EQ(codes, c.codes);
    });
    EXPECT_EQ(static_cast<long>(records.size()), std::count(c.codes.begin(), c.codes.end(), 0));
  }
}

TEST_F(Validated, ARefusedStartOrEndMovesTheDepthAllTheSame) {
  collector.add_service("SVC", {.trace_flags = 0x20});
  collector.que_info().svc_filtering = 1;
  const auto records = trace([&] {
    EXPECT_EQ(start({.gid = "G1", .svc_id = "SVC"}), TRAN_RC_FILTERED);
    EXPECT_EQ(entry().entry_depth, 1);
    EXPECT_EQ(entry().tran_state, 'd') << "no service has started";
    collector.que_info().svc_filtering = 0;
    // The end is admitted: it closes a level that has no start, so it knows no response time.
    entry().svc_start_time.sec = 1;
    entry().dbio_elapsed_total = 5;
    EXPECT_EQ(end({.gid = nullptr, .svc_id = "SVC"}), 0);
    EXPECT_EQ(error({}), TRAN_RC_DEPTH);

    EXPECT_EQ(start({.gid = "G2", .svc_id = "SVC"}), 0);
    collector.que_info().svc_filtering = 2;  // the service was started without the table
    EXPECT_EQ(end({}), TRAN_RC_FILTERED);
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
  EXPECT_EQ(body_field(records[0], "elapsed_us") + body_field(records[0], "dbio_elapsed_us"),
            std::string(20, '0'));
  for (const char* const bit :
       {"END_BIT [ tid : 4660, log_bit : 0", "START_BIT [ tid : 4660, log_bit : 2",
        "START_BIT [ tid : 4660, log_bit : 1"})
    EXPECT_EQ(collector.count_logged("[CHECK_LOG_BIT] NOK, set " + std::string(bit)), 1) << bit;
}

TEST_F(Validated, AnEntryThatIsMissingOrAnotherThreadsIsLoggedWhereAServiceStartsOrEnds) {
  const auto records = trace([&] {
    TableStack& free = collector.ptrc_tbl().free_stack;
    const std::uint32_t count = std::exchange(free.count, 0U);
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), TRAN_RC_NO_ENTRY);
    EXPECT_EQ(info({.gid = "G", .svc_id = "S"}), TRAN_RC_NO_ENTRY);
    free.count = count;
    EXPECT_TRUE(wait_until([] { return TRAN_SQL_ID(kThread, "S", 1) == 0; }));
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
    PTRC_HASH_ENT& mine = entry();
    mine.ent_tid = 9;
    EXPECT_EQ(info({.message = "m"}), TRAN_RC_FOREIGN_ENTRY);
    EXPECT_EQ(error({}), TRAN_RC_FOREIGN_ENTRY);
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), TRAN_RC_FOREIGN_ENTRY);
    mine.ent_tid = kThread;
    EXPECT_EQ(end({}), 0);
  });
  ASSERT_EQ(types_of(records), "12");
  EXPECT_EQ(body_field(records[0], "depth"), "01");
  const std::string process = "(pid " + std::to_string(pid()) + ", tid ";
  for (const std::string& line :
       {std::string("<!> TRAN_START get_mtr_cxt_var error, return code 116, tid 4660"),
        "<!> PTRC HASH " + process + "9) is not equal to MTR_CXT_VAR " + process + "4660)"})
    EXPECT_EQ(collector.count_logged(line), 1) << line;
}

TEST_F(Validated, ASnapshotRunsFromAMatchingStartToItsEndAndIsReported) {
  struct {
    const char* armed;
    Arg channel;
    bool matches;
    int report_code = 0;  // the end's result
  } const cases[] = {
      {"ICT", {"ICT", 3}, true},
      {"I", "ICT", true, TRAN_RC_SWITCHED_OFF},
      {"WEB", "ICT", false},
      {"ICT", {"ICT", 2}, false},
      {"", "ICT", false},
      {"ICT", nullptr, false},
      // A channel is three characters and need not be readable behind them.
      {"ICTX", {guarded("ICT"), -1}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    const bool reports = c.matches && c.report_code == 0;
    const auto records = trace([&] {
      ASSERT_EQ(info({.gid = "G", .svc_id = "S"}), 0);
      entry().snapshot_state = kSnapshotArmed;
      std::strcpy(entry().snapshot_tx_cd, c.armed);
      entry().snapshot_aux = 77;
      entry().preset_time = {1'700'000'000, 250'000};
      ASSERT_EQ(start({.gid = "GID", .svc_id = "SVC1", .chnl_typ_cd = c.channel}), 0);
      EXPECT_EQ(entry().trc_depth, c.matches ? 50 : 10);
      entry().preset_time = {1'700'000'003, 100'000};
      collector.que_info().log_flag_set = c.report_code == 0 ? 0xFF : 0xFB;
      EXPECT_EQ(end({.hdr_cd = "AB", .hdr_flag = "C", .gid = "GID", .svc_id = "GIVEN"}),
                c.report_code);
      EXPECT_EQ(entry().snapshot_state, c.matches ? kSnapshotNone : kSnapshotArmed);
      EXPECT_EQ(entry().snapshot_aux, c.matches ? 0 : 77);
      EXPECT_EQ(entry().entry_depth, 0);
    });
    ASSERT_EQ(types_of(records), reports ? "I12V" : "I12");
    if (!reports) continue;
    const Record& report = records[3];
    EXPECT_EQ(field_of(report, kHdrCd) + field_of(report, kHdrFlag), "ABC");
    EXPECT_EQ(text_of(report, kGid) + text_of(report, kSvcId), "GIDGIVEN");
    EXPECT_EQ(body_field(report, "code") + body_field(report, "chnl_class"), "1302C");
    EXPECT_EQ(body_field(report, "recv_svc_cd"), c.armed);
    EXPECT_EQ(body_field(report, "message"),
              euc_kr("거래코드(" + std::string(c.armed) +
                     ")에 대한 SNAPSHOT 모니터링을 완료하였습니다. [서비스(SVC1            ) "
                     "응답시간: 0002850000 (us)]"));
  }
}

}  // namespace
}  // namespace varn::test
