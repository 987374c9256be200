// Partial services, and the flat ones of client handlers, web and FEP servers: where they differ
// from plain services.
#include "records/traced.h"

namespace varn::test {
namespace {

using Forms = RecordTest;

TEST_F(Forms, PartialServicesAreLevelsLikeAnyOtherAndMixWithThem) {
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = "G", .svc_id = "PLAIN", .chnl_typ_cd = "ICT"}), 0);
    entry().fetch_cnt = entry().fetch_rows = entry().fetch_time = 5;
    ASSERT_EQ(end({}), 0);
    ASSERT_EQ(pt_start({.gid = "G", .svc_id = "PART", .chnl_typ_cd = "ICT"}), 0);
    EXPECT_EQ(entry().tran_state, 'f');
    EXPECT_EQ(entry().chnl_class, 'O') << "whatever the channel";
    EXPECT_EQ(entry().fetch_cnt + entry().fetch_rows + entry().fetch_time, 15);
    EXPECT_EQ(std::string(entry().main_svc_id, 16), padded("PART", 16));
    ASSERT_EQ(start({.gid = "G", .svc_id = "PLAIN"}), 0);
    EXPECT_EQ(entry().entry_depth, 2);
    ASSERT_EQ(pt_end({}), 0);
    EXPECT_EQ(entry().tran_state, 'f');
    ASSERT_EQ(pt_end({.gid = "ANOTHER"}), 0);
    EXPECT_EQ(entry().entry_depth, 0);
    EXPECT_EQ(entry().tran_state, 'g');
  });
  ASSERT_EQ(types_of(records), "121122") << "a changed GID is not told";
  EXPECT_EQ(text_of(records[4], kSvcId), "PLAIN");
  EXPECT_EQ(body_field(records[4], "depth"), "02");
  EXPECT_NE(body_field(records[5], "elapsed_us"), "0000000000");
}

TEST_F(Forms, APartialStartIsLinkedWhateverTheChannel) {
  const auto records = trace([&] {
    ASSERT_EQ(pt_start({.gid = "G1", .svc_id = "S1"}), 0);
    ASSERT_EQ(pt_start({.gid = "G2", .svc_id = "S2", .chnl_typ_cd = "ICT"}), 0);
    entry().svc_mark_time = time(nullptr) - 100;
    ASSERT_EQ(pt_start({.gid = "G2", .svc_id = "S3"}), 0);
  });
  ASSERT_EQ(types_of(records), "1II11");
  EXPECT_EQ(body_field(records[2], "message"), "Linked Main Service Transaction Exist [ GID '" +
                                                   padded("G1", 32) + "' ] , [ Service " +
                                                   padded("S1", 16) + "]");
  EXPECT_EQ(body_field(records[4], "depth"), "01");
  EXPECT_TRUE(logged_seconds("<!> START - service depth init (2)->(0) GID-PID-TID|" +
                                 padded("G2", 32) + "|-|" + std::to_string(pid()) +
                                 "|-|4660|, SVC (" + padded("S2", 16) +
                                 ")->(S3), svc_depth_elapsed ",
                             100, " sec (base 60 sec)"));
}

TEST_F(Forms, ARefusedPartialEndLeavesItsLevelOpen) {
  const auto records = trace([&] {
    ASSERT_EQ(pt_start({.gid = "G", .svc_id = "S"}), 0);
    collector.que_info().svc_filtering = 2;
    EXPECT_EQ(pt_end({}), TRAN_RC_FILTERED);
    EXPECT_EQ(entry().entry_depth, 1);
    collector.que_info().svc_filtering = 0;
    EXPECT_EQ(pt_end({}), 0);
    EXPECT_EQ(pt_end({}), TRAN_RC_DEPTH);
  });
  EXPECT_EQ(types_of(records), "12");
}

TEST_F(Forms, APartialEndTellsOfItsCallsButNotOfFetches) {
  const auto records = trace([&] {
    ASSERT_EQ(pt_start({.gid = "G", .svc_id = "S"}), 0);
    entry().call_cnt = 3;
    ASSERT_EQ(pt_end({}), 0);
  });
  ASSERT_EQ(types_of(records), "1I2");
  EXPECT_EQ(
      body_field(records[1], "message"),
      euc_kr("처리 모듈(함수)통계 [ 총 호출 3 건 ] [ Max Depth 0 ] [ BIZCALL(Method) 0건 (전체 "
             "Avg/Max   0.00/0 ms, 개별 Max 0 ms) ], [ DBIO 0건 (Avg/Max   0.00/0 ms) ]"));
}

TEST_F(Forms, FlatServicesPutTheThreadAtDepthOneAndLeaveItThere) {
  const auto records = trace([&] {
    EXPECT_EQ(clh_error({.gid = "G", .svc_id = "CLH0"}, kThread + 1), 0) << "without a service";
    EXPECT_EQ(entry(kThread + 1).entry_depth, 1);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
    entry().fetch_cnt = 7;
    entry().call_cnt = 7;
    entry().preset_time.sec = 77;
    const std::int64_t started = entry().svc_start_time.sec;
    ASSERT_EQ(
        clh_start({.gid = "OTHER", .svc_id = "CLH1", .chnl_typ_cd = "ICC", .recv_svc_cd = "RECV"}),
        0);
    EXPECT_EQ(entry().entry_depth, 1);
    EXPECT_EQ(entry().tran_state, 'f');
    EXPECT_EQ(entry().chnl_class, 'C');
    EXPECT_EQ(std::string(entry().main_gid, 32), padded("OTHER", 32));
    EXPECT_EQ(std::string(entry().main_recv_svc_cd, 12), padded("RECV", 12));
    EXPECT_EQ(entry().fetch_cnt, 7) << "kept";
    EXPECT_EQ(entry().call_cnt, 0) << "reset as by every outermost start";
    ASSERT_EQ(clh_end({.gid = "YET-ANOTHER", .svc_id = "CLH2"}), 0);
    EXPECT_EQ(entry().entry_depth, 1);
    EXPECT_EQ(entry().tran_state, 'g');
    ASSERT_EQ(web_start({.gid = "W", .svc_id = "WEB1", .chnl_typ_cd = "ICT"}), 0);
    EXPECT_EQ(entry().chnl_class, 'O');
    ASSERT_EQ(web_end({}), 0);
    EXPECT_EQ(entry().preset_time.sec, 77) << "not used";
    EXPECT_EQ(entry().svc_start_time.sec, started);
  });
  ASSERT_EQ(types_of(records), "91111212") << "nothing is told of GIDs, calls or levels";
  for (const Record& record : {records[0], records[4], records[5], records[6], records[7]})
    EXPECT_EQ(field_of(record, {"numbers", 148, 24}), "0000000000 0000000000 01");
  EXPECT_EQ(text_of(records[5], kGid), "YET-ANOTHER");
  EXPECT_FALSE(collector.logged("CHECK_LOG_BIT"));
}

TEST_F(Forms, FepCallsSendNothingAndLetNoticesFollow) {
  const auto records = trace([&] {
    EXPECT_EQ(info({.message = "before"}), TRAN_RC_DEPTH);
    EXPECT_EQ(TRAN_FEP_START(kThread, nullptr, 5, "ignored", -1), 0);
    EXPECT_EQ(info({.message = "behind"}), 0);
    EXPECT_EQ(TRAN_FEP_END(kThread, nullptr, 0, nullptr, 0), 0);
    EXPECT_EQ(entry().entry_depth, 1);
    collector.que_info().log_flag_set = 0xFE;
    EXPECT_EQ(TRAN_FEP_START(kThread, nullptr, 0, nullptr, 0), TRAN_RC_SWITCHED_OFF);
    EXPECT_EQ(clh_start({}), TRAN_RC_SWITCHED_OFF);
  });
  EXPECT_EQ(types_of(records), "I");
}

TEST_F(Forms, StartsThatFindNoContextSayWhoTheyAre) {
  trace([&] {
    for (int i = 1; i <= 10; ++i) ASSERT_EQ(start({.svc_id = "S"}, i * 256 + 9), 0);
    for (const auto refused : {pt_start, web_start})
      EXPECT_EQ(refused({.svc_id = "S"}, 11 * 256 + 9), TRAN_RC_NO_CONTEXT);
    EXPECT_EQ(clh_start({.svc_id = "S"}, 11 * 256 + 9), TRAN_RC_NO_CONTEXT);
    EXPECT_EQ(clh_end({.svc_id = "S"}, 11 * 256 + 9), TRAN_RC_NO_CONTEXT);
  });
  for (const char* const name : {"TRAN_PT_START", "TRAN_WEB_START", "TRAN_CLH_START"})
    EXPECT_TRUE(collector.logged("<!> " + std::string(name) +
                                 " get_mtr_cxt_var error, return code 107, tid 2825"));
  EXPECT_FALSE(collector.logged("TRAN_CLH_END"));
}

}  // namespace
}  // namespace varn::test
