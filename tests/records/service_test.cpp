// The service levels of a thread: starts and ends, nested, linked, left behind and refused, and
// what an end reports.
#include <ctime>

#include "records/traced.h"

namespace varn::test {
namespace {

using Service = RecordTest;

const std::string kGid30 = "123456789012345678901234567890";
const std::string kTopGid = kGid30 + "AB";

TEST_F(Service, LevelsNestAndTheEntryShowsTheOutermost) {
  const std::int64_t before = time(nullptr);
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = "G", .svc_id = "S1", .chnl_typ_cd = "ICC", .recv_svc_cd = "R1"}), 0);
    PTRC_HASH_ENT& own = entry();
    EXPECT_GE(own.svc_mark_time, before);
    own.fetch_cnt = own.fetch_rows = own.fetch_time = 5;
    own.svc_start_time.sec = own.svc_mark_time = INT32_MAX;
    own.call_cnt = 3;
    for (int depth = 2; depth <= 9; ++depth) {
      ASSERT_EQ(start({.gid = "G", .svc_id = "S2", .chnl_typ_cd = "WEB", .recv_svc_cd = "R2"}), 0);
      EXPECT_EQ(own.entry_depth, depth);
    }
    for (int depth = 8; depth >= 1; --depth) {
      ASSERT_EQ(end({}), 0);
      EXPECT_EQ(own.entry_depth, depth);
    }
    EXPECT_EQ(error({}), 0);
    EXPECT_EQ(own.tran_state, 'f');
    EXPECT_EQ(own.chnl_class, 'C');
    EXPECT_EQ(own.svc_mark_time, INT32_MAX);
    EXPECT_EQ(own.svc_start_time.sec, INT32_MAX);
    EXPECT_EQ(std::string(own.main_svc_id, 16), padded("S1", 16));
    EXPECT_EQ(std::string(own.main_recv_svc_cd, 12), padded("R1", 12));
    EXPECT_EQ(own.fetch_cnt + own.fetch_rows + own.fetch_time, 15);
    ASSERT_EQ(end({}), 0);
    EXPECT_EQ(own.tran_state, 'g');
    EXPECT_EQ(own.entry_depth, 0);
    EXPECT_LT(own.svc_mark_time, INT32_MAX);
    EXPECT_EQ(error({}), TRAN_RC_DEPTH);
    ASSERT_EQ(start({.gid = "G", .svc_id = "S1"}), 0);
    EXPECT_EQ(own.chnl_class, 'O');
    EXPECT_EQ(own.fetch_cnt + own.fetch_rows + own.fetch_time, 0);
  });
  ASSERT_EQ(types_of(records), std::string(9, '1') + std::string(8, '2') + "9I21");
  for (std::size_t i = 0; i < 17; ++i) {
    const std::size_t depth = i < 9 ? i + 1 : 18 - i;
    EXPECT_EQ(body_field(records[i], "depth"), "0" + std::to_string(depth));
    EXPECT_EQ(text_of(records[i], kSvcId), depth == 1 ? "S1" : "S2");
    EXPECT_EQ(body_field(records[i], "elapsed_us"), "0000000000");
  }
}

TEST_F(Service, TheFirstThirtyCharactersOfTheGidSayWhetherAStartIsLinked) {
  struct {
    const char* name;
    Arg gid;
    const char* channel;
    bool is_linked;
  } const cases[] = {
      {"another tail", "123456789012345678901234567890XY", "WEB", false},
      {"another thirtieth", "12345678901234567890123456789xAB", "WEB", true},
      {"none", nullptr, "WEB", false},
      {"a given but empty one", {"", 0}, "WEB", true},
      {"another on channel ICT", "G2", "ICT", false},
      {"another on a channel text that begins with ICC", "G2", "ICCX", false},
      {"another on a shorter one", "G2", "IC", true},
      {"another without a channel", "G2", nullptr, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = kTopGid.c_str(), .svc_id = "S1"}), 0);
      ASSERT_EQ(start({.gid = c.gid, .svc_id = "S2", .chnl_typ_cd = c.channel}), 0);
    });
    EXPECT_EQ(types_of(records), c.is_linked ? "1II1" : "11");
  }
}

TEST_F(Service, ALinkedTransactionIsAnnouncedToBothServicesAndInTheLog) {
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = kTopGid.c_str(), .svc_id = "S1"}), 0);
    entry().svc_mark_time = time(nullptr) - 30;
    ASSERT_EQ(start({.hdr_cd = "HH",
                     .gid = "abcdefghijABCDEFGHIJabcdefghijYZ",
                     .svc_id = "SERVICE-OF-20-CHARS-"}),
              0);
  });
  ASSERT_EQ(types_of(records), "1II1");
  EXPECT_EQ(text_of(records[1], kGid), kTopGid);
  EXPECT_EQ(text_of(records[1], kSvcId), "S1");
  EXPECT_EQ(body_field(records[1], "message"),
            "Linked Transaction Created [ GID 'abcdefghijABCDEFGHIJabcdefghij' ] , [ Service "
            "SERVICE-OF-20-CH - Depth #2 ]");
  EXPECT_EQ(text_of(records[2], kGid), "abcdefghijABCDEFGHIJabcdefghijYZ");
  EXPECT_EQ(text_of(records[2], kSvcId), "SERVICE-OF-20-CH");
  EXPECT_EQ(body_field(records[2], "message"), "Linked Main Service Transaction Exist [ GID '" +
                                                   kTopGid + "' ] , [ Service " + padded("S1", 16) +
                                                   "]");
  EXPECT_EQ(text_of(records[2], kHdrCd), "") << "of the caller's codes nothing";
  EXPECT_TRUE(logged_seconds("(I) START - service depth change (1)->(2), New GID_UNI -> KEEP |" +
                                 kTopGid + "-" + padded("S1", 16) +
                                 "|, NOW |abcdefghijABCDEFGHIJabcdefghij-SERVICE-OF-20-CH|, "
                                 "svc_depth_elapsed ",
                             30, " sec(base 60 sec)"));
}

TEST_F(Service, LevelsOlderThanTheTimeOutAreDroppedByTheNextStart) {
  const std::string kept = "|" + padded("G1", 32) + "-" + padded("S1", 16) + "|";
  struct {
    const char* gid;
    int age;
    bool is_dropped;
    std::string logged;  // after the depths
  } const cases[] = {
      {nullptr, 100, true, " GID-PID-TID |" + padded("G1", 32) + "|-|"},
      {"G2", 100, true, ", New GID_UNI -> KEEP " + kept + ", NOW |G2-S2|, svc_depth_elapsed "},
      {"G1", 60, true, " GID-PID-TID |" + padded("G1", 32) + "|-|"},
      {"G1", 55, false, ""},
      {"G1", -100, false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.age);
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
      ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
      entry().svc_mark_time = time(nullptr) - c.age;
      ASSERT_EQ(start({.gid = c.gid, .svc_id = "S2"}), 0);
    });
    ASSERT_EQ(types_of(records), "111") << "nothing is linked";
    EXPECT_EQ(body_field(records[2], "depth"), c.is_dropped ? "01" : "03");
    EXPECT_FALSE(collector.logged("CHECK_LOG_BIT")) << "the start bit went with the levels";
    if (c.is_dropped) {
      EXPECT_TRUE(collector.logged("<!> START - service depth init (2)->(0)" + c.logged));
    }
  }
  EXPECT_TRUE(logged_seconds("|-|4660|, SVC (" + padded("S1", 16) + ")->(S2) svc_depth_elapsed ",
                             100, " sec (base 60 sec)"));
}

TEST_F(Service, TheEleventhLevelStartsAfresh) {
  const auto records = trace([&] {
    for (int i = 0; i < 10; ++i) ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
    ASSERT_EQ(start({.gid = "G2", .svc_id = "SERVICE-OF-20-CHARS-"}), 0);
    EXPECT_EQ(std::string(entry().main_gid, 32), padded("G2", 32));
    ASSERT_EQ(end({}), 0);
    EXPECT_EQ(end({}), TRAN_RC_DEPTH);
  });
  ASSERT_EQ(types_of(records), std::string(11, '1') + "2");
  EXPECT_EQ(body_field(records[10], "depth"), "01");
  const std::string process = std::to_string(pid());
  for (const std::string& line :
       {"<!> START service_depth MAX error!(val:10 (MAX:10)) GID-PID-TID|G2|-|" + process +
            "|-|4660|, SVC (SERVICE-OF-20-CH).",
        "[CHECK_LOG_BIT] NOK, set START_BIT [ tid : 4660, log_bit : 1, PID : " + process +
            ", GID - Keep {" + padded("G1", 32) + "} Now {G2}, SVC_ID - Keep {" + padded("S1", 16) +
            "} Now {SERVICE-OF-20-CH} ]"})
    EXPECT_EQ(collector.count_logged(line), 1) << line;
}

TEST_F(Service, AnEndWithoutAServiceIsRefusedAndLogged) {
  const auto records = trace([&] {
    EXPECT_EQ(end({.gid = {"GID", 2}, .svc_id = "SVC"}), TRAN_RC_DEPTH);
    EXPECT_EQ(entry().entry_depth, 0);
    EXPECT_EQ(entry().tran_state, 'd');
    // The texts end where their memory ends.
    for (const int len : {-1, INT32_MAX})
      EXPECT_EQ(end({.gid = {guarded(kTopGid), len}, .svc_id = {guarded("SERVICE-16-CHARS"), len}}),
                TRAN_RC_DEPTH);
  });
  EXPECT_TRUE(records.empty());
  const std::string middle = "|-|" + std::to_string(pid()) + "|-|4660|, SVC (";
  const std::string begin = "<!> END service_depth error!(val:0 (MAX:10)) GID-PID-TID|";
  EXPECT_EQ(collector.count_logged(begin + "GI" + middle + "SVC)."), 1);
  EXPECT_EQ(collector.count_logged(middle + "SERVICE-16-CHARS)."), 2);
}

TEST_F(Service, TimesSetAheadAreUsedOnceAndNumbersAreCutToTheirFields) {
  collector.environment["TZ"] = "KST-9";
  struct {
    const char* name;
    std::int64_t from, to;  // microseconds since 07:13:20
    const char *start_time, *end_time;
    std::int64_t dbio;
    const char *shown_start, *shown_end, *elapsed, *dbio_elapsed;
  } const cases[] = {
      {"both set", 250'000, 3'100'000, nullptr, nullptr, 42, "071320250000", "071323100000",
       "0002850000", "0000000042"},
      {"longer times than fit", 0, 10'000'000'000, nullptr, nullptr, INT64_MAX, "071320000000",
       "100000000000", "9999999999", "9999999999"},
      {"an end before the start", 3'000'000, 0, nullptr, nullptr, -5, "071323000000",
       "071320000000", "0000000000", "0000000000"},
      {"an end with a time of its own", 0, 1'000'000, nullptr, "235959123456", 42, "071320000000",
       "235959123456", "0000000000", "0000000000"},
      {"a start with a time of its own", 250'000, 250'000, "010203000004", nullptr, 42,
       "010203000004", "071320250000", "0000250000", "0000000042"},
  };
  const auto moment = [](std::int64_t us) {
    return TimeVal{1'700'000'000 + us / 1'000'000, us % 1'000'000};
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto records = trace([&] {
      ASSERT_EQ(info({.gid = "G", .svc_id = "S"}), 0);
      entry().svc_start_time = moment(0);
      entry().preset_time = moment(c.from);
      ASSERT_EQ(start({.gid = "G", .svc_id = "S", .time_str = c.start_time}), 0);
      EXPECT_EQ(entry().preset_time.sec != 0, c.start_time != nullptr);
      ASSERT_EQ(start({.gid = "G", .svc_id = "S", .time_str = "111111111111"}), 0);
      ASSERT_EQ(end({.time_str = "111111111111"}), 0);
      entry().preset_time = moment(c.to);
      entry().dbio_elapsed_total = c.dbio;
      ASSERT_EQ(end({.time_str = c.end_time}), 0);
      EXPECT_EQ(entry().preset_time.sec != 0, c.end_time != nullptr);
    });
    ASSERT_EQ(types_of(records), "I1122");
    EXPECT_EQ(field_of(records[1], kTime), c.shown_start);
    EXPECT_EQ(field_of(records[4], kTime), c.shown_end);
    EXPECT_EQ(body_field(records[4], "elapsed_us"), c.elapsed);
    EXPECT_EQ(body_field(records[4], "dbio_elapsed_us"), c.dbio_elapsed);
    EXPECT_EQ(field_of(records[1], kDate), field_of(records[2], kDate)) << "always the current one";
  }
}

TEST_F(Service, AnEndWithAnotherGidReportsTheChangeInOrder) {
  struct {
    Arg gid;
    const char *shown, *header_gid;  // null: nothing has changed
  } const cases[] = {
      {"12345678901234567890123456789xAB", "12345678901234567890123456789x",
       "12345678901234567890123456789xAB"},
      {"123456789012345678901234567890xx", nullptr, nullptr},
      {{kTopGid.c_str(), 5}, "12345", "12345"},
      {{"", 0}, "", ""},
      {nullptr, nullptr, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.shown != nullptr ? c.shown : "unchanged");
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = kTopGid.c_str(), .svc_id = "S-START"}), 0);
      ASSERT_EQ(end({.hdr_cd = "HH", .gid = c.gid, .svc_id = "S-END"}), 0);
    });
    ASSERT_EQ(types_of(records), c.shown != nullptr ? "1IIV2" : "12");
    EXPECT_EQ(text_of(records.back(), kGid), kTopGid);
    EXPECT_EQ(text_of(records.back(), kSvcId), "S-START");
    if (c.shown == nullptr) continue;
    const std::string message = "< Warning!! > GID 30 Bytes Changed.[ Start GID '" + kGid30 +
                                "' -> End GID '" + c.shown + "' ]";
    const std::string gids[] = {kTopGid, c.header_gid, kTopGid};
    const char* const svc_ids[] = {"S-END", "S-END", "S-START"};
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(text_of(records[i + 1], kGid), gids[i]);
      EXPECT_EQ(text_of(records[i + 1], kSvcId), svc_ids[i]);
      EXPECT_EQ(body_field(records[i + 1], "message"), message);
      EXPECT_EQ(text_of(records[i + 1], kHdrCd), "");
    }
    EXPECT_EQ(body_field(records[3], "code"), "1801");
    EXPECT_EQ(body_field(records[3], "recv_svc_cd"), "");
    EXPECT_EQ(body_field(records[3], "chnl_class"), "");
    EXPECT_EQ(collector.count_logged(std::string("(I) EVENT_GLOBAL_ID_CHANGED (GID ") + c.shown +
                                     ") TRAN_EVENT ret = 0"),
              1);
  }
}

TEST_F(Service, NoticesThatAreSwitchedOffDoNotStopTheService) {
  const auto records = trace([&] {
    collector.que_info().log_flag_set = 0xFF & ~0x24;
    ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
    ASSERT_EQ(start({.gid = "G2", .svc_id = "S2"}), 0);
    ASSERT_EQ(end({.gid = "G3"}), 0);
    entry().call_cnt = 1;
    ASSERT_EQ(end({}), 0);
  });
  ASSERT_EQ(types_of(records), "1122");
  EXPECT_TRUE(collector.logged("(I) EVENT_GLOBAL_ID_CHANGED (GID G3) TRAN_EVENT ret = 100"));
}

}  // namespace
}  // namespace varn::test
