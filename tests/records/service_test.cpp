// The service levels of a thread: starts and ends, nested, linked, left behind and refused, and
// what an end reports.
#include <ctime>

#include "records/traced.h"

namespace varn::test {
namespace {

using Service = RecordTest;

const std::string kGid30 = "123456789012345678901234567890";
const std::string kTopGid = kGid30 + "AB";

TEST_F(Service, AStartOpensALevelThatItsEndCloses) {
  const std::int64_t before = time(nullptr);
  const auto records = trace([&] {
    ASSERT_EQ(info({.gid = "G", .svc_id = "S"}), 0);
    EXPECT_EQ(entry().tran_state, 'd');
    entry().svc_mark_time = 0;
    ASSERT_EQ(start({.gid = "G", .svc_id = "S", .chnl_typ_cd = "WEB", .recv_svc_cd = "R"}), 0);
    EXPECT_EQ(entry().tran_state, 'f');
    EXPECT_EQ(entry().entry_depth, 1);
    EXPECT_EQ(entry().chnl_class, 'O');
    EXPECT_GE(entry().svc_mark_time, before);
    entry().svc_mark_time = 0;
    EXPECT_EQ(error({}), 0);
    EXPECT_EQ(entry().tran_state, 'f') << "an error changes no state";
    EXPECT_EQ(entry().entry_depth, 1);
    EXPECT_EQ(end({}), 0);
    EXPECT_EQ(entry().tran_state, 'g');
    EXPECT_EQ(entry().entry_depth, 0);
    EXPECT_GE(entry().svc_mark_time, before);
    EXPECT_EQ(error({}), TRAN_RC_DEPTH);
  });
  EXPECT_EQ(types_of(records), "I192");
}

TEST_F(Service, InnerLevelsLeaveTheOutermostServicesEntryAsItIs) {
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = "G", .svc_id = "S1", .chnl_typ_cd = "ICC", .recv_svc_cd = "R1"}), 0);
    entry().fetch_cnt = entry().fetch_rows = entry().fetch_time = 5;
    entry().svc_start_time.sec = 6;
    entry().svc_mark_time = time(nullptr) - 30;
    const std::int64_t mark = entry().svc_mark_time;
    for (int depth = 2; depth <= 9; ++depth) {
      ASSERT_EQ(start({.gid = "G", .svc_id = "S2", .chnl_typ_cd = "WEB", .recv_svc_cd = "R2"}), 0);
      EXPECT_EQ(entry().entry_depth, depth);
    }
    for (int depth = 8; depth >= 1; --depth) {
      ASSERT_EQ(end({}), 0);
      EXPECT_EQ(entry().entry_depth, depth);
    }
    EXPECT_EQ(entry().tran_state, 'f');
    EXPECT_EQ(entry().chnl_class, 'C');
    EXPECT_EQ(entry().svc_mark_time, mark);
    EXPECT_EQ(entry().svc_start_time.sec, 6);
    EXPECT_EQ(std::string(entry().main_svc_id, 16), padded("S1", 16));
    EXPECT_EQ(std::string(entry().main_recv_svc_cd, 12), padded("R1", 12));
    EXPECT_EQ(entry().fetch_cnt + entry().fetch_rows + entry().fetch_time, 15);
    ASSERT_EQ(end({}), 0);
    ASSERT_EQ(start({.gid = "G", .svc_id = "S1"}), 0);
    EXPECT_EQ(entry().fetch_cnt + entry().fetch_rows + entry().fetch_time, 0);
  });
  ASSERT_EQ(types_of(records), std::string(9, '1') + std::string(9, '2') + "1");
  for (std::size_t i = 0; i < 18; ++i) {
    const std::size_t depth = i < 9 ? i + 1 : 18 - i;
    EXPECT_EQ(body_field(records[i], "depth"), "0" + std::to_string(depth));
    EXPECT_EQ(text_of(records[i], kSvcId), depth == 1 ? "S1" : "S2");
    if (depth == 1) continue;
    EXPECT_EQ(body_field(records[i], "elapsed_us"), "0000000000");
    EXPECT_EQ(body_field(records[i], "dbio_elapsed_us"), "0000000000");
  }
}

TEST_F(Service, TheFirstThirtyCharactersOfTheGidSayWhetherAStartIsLinked) {
  struct {
    const char* name;
    std::string top;
    Arg gid;
    const char* channel;
    bool is_linked;
  } const cases[] = {
      {"the same", kTopGid, kTopGid.c_str(), "WEB", false},
      {"another tail", kTopGid, {"123456789012345678901234567890XY", 32}, "WEB", false},
      {"the thirty alone", kTopGid, kGid30.c_str(), "WEB", false},
      {"another thirtieth", kTopGid, "12345678901234567890123456789xAB", "WEB", true},
      {"only its beginning", kTopGid, {kTopGid.c_str(), 29}, "WEB", true},
      {"a short one", "G1", "G1", "WEB", false},
      {"a short one with its blanks", "G1", "G1   ", "WEB", false},
      {"a short one and a longer", "G1", "G12", "WEB", true},
      {"none", kTopGid, nullptr, "WEB", false},
      {"a given but empty one", kTopGid, {"", 0}, "WEB", true},
      {"another on channel ICT", "G1", "G2", "ICT", false},
      {"another on channel ICC", "G1", "G2", "ICC", false},
      {"another on a longer channel text", "G1", "G2", "ICTX", false},
      {"another on a shorter one", "G1", "G2", "IC", true},
      {"another without a channel", "G1", "G2", nullptr, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = c.top.c_str(), .svc_id = "S1"}), 0);
      ASSERT_EQ(start({.gid = c.gid, .svc_id = "S2", .chnl_typ_cd = c.channel}), 0);
      EXPECT_EQ(entry().entry_depth, 2);
    });
    EXPECT_EQ(types_of(records), c.is_linked ? "1II1" : "11");
  }
}

TEST_F(Service, ALinkedTransactionIsAnnouncedToBothServicesAndInTheLog) {
  struct {
    Arg gid, svc_id;
    std::string shown_gid, shown_svc_id, header_gid, header_svc_id;
  } const cases[] = {
      {"G-NEW", "S-NEW", "G-NEW", "S-NEW", "G-NEW", "S-NEW"},
      {"abcdefghijABCDEFGHIJabcdefghijYZ", "SERVICE-OF-20-CHARS-", "abcdefghijABCDEFGHIJabcdefghij",
       "SERVICE-OF-20-CH", "abcdefghijABCDEFGHIJabcdefghijYZ", "SERVICE-OF-20-CH"},
      {{"G-NEW-and-more", 5}, {"S-NEW-and-more", 5}, "G-NEW", "S-NEW", "G-NEW", "S-NEW"},
      {"G-NEW", nullptr, "G-NEW", "null", "G-NEW", "S1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.shown_gid + ' ' + c.shown_svc_id);
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = kTopGid.c_str(), .svc_id = "S1"}), 0);
      entry().svc_mark_time = time(nullptr) - 30;
      ASSERT_EQ(start({.hdr_cd = "HH", .gid = c.gid, .svc_id = c.svc_id}), 0);
    });
    ASSERT_EQ(types_of(records), "1II1");
    EXPECT_EQ(text_of(records[1], kGid), kTopGid);
    EXPECT_EQ(text_of(records[1], kSvcId), "S1");
    EXPECT_EQ(body_field(records[1], "message"), "Linked Transaction Created [ GID '" +
                                                     c.shown_gid + "' ] , [ Service " +
                                                     c.shown_svc_id + " - Depth #2 ]");
    EXPECT_EQ(text_of(records[2], kGid), c.header_gid);
    EXPECT_EQ(text_of(records[2], kSvcId), c.header_svc_id);
    EXPECT_EQ(body_field(records[2], "message"), "Linked Main Service Transaction Exist [ GID '" +
                                                     kTopGid + "' ] , [ Service " +
                                                     padded("S1", 16) + "]");
    EXPECT_EQ(text_of(records[2], kHdrCd), "") << "of the caller's codes nothing";
    EXPECT_EQ(text_of(records[3], kHdrCd), "HH");
    EXPECT_TRUE(logged_seconds("(I) START - service depth change (1)->(2), New GID_UNI -> KEEP |" +
                                   kTopGid + "-" + padded("S1", 16) + "|, NOW |" + c.shown_gid +
                                   "-" + c.shown_svc_id + "|, svc_depth_elapsed ",
                               30, " sec(base 60 sec)"));
  }
}

TEST_F(Service, LevelsOlderThanTheTimeOutAreDroppedByTheNextStart) {
  struct {
    const char* name;
    const char* gid;
    int age;
    bool is_dropped;
  } const cases[] = {
      {"same GID, old", "G1", 100, true},
      {"other GID, old", "G2", 100, true},
      {"no GID, old", nullptr, 100, true},
      {"same GID, just old enough", "G1", 60, true},
      {"same GID, not old enough", "G1", 55, false},
      {"same GID, a mark in the future", "G1", -100, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
      ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
      entry().svc_mark_time = time(nullptr) - c.age;
      ASSERT_EQ(start({.gid = c.gid, .svc_id = "S2"}), 0);
      EXPECT_EQ(entry().entry_depth, c.is_dropped ? 1 : 3);
    });
    ASSERT_EQ(types_of(records), "111") << "nothing is linked";
    EXPECT_EQ(body_field(records[2], "depth"), c.is_dropped ? "01" : "03");
    EXPECT_FALSE(collector.logged("CHECK_LOG_BIT")) << "the start bit went with the levels";
    if (c.age != 100) continue;
    const std::string process = std::to_string(pid());
    const bool same_gid = c.gid == nullptr || std::string_view(c.gid) == "G1";
    EXPECT_TRUE(logged_seconds(
        same_gid
            ? "<!> START - service depth init (2)->(0) GID-PID-TID |" + padded("G1", 32) + "|-|" +
                  process + "|-|4660|, SVC (" + padded("S1", 16) + ")->(S2) svc_depth_elapsed "
            : "<!> START - service depth init (2)->(0), New GID_UNI -> KEEP |" + padded("G1", 32) +
                  "-" + padded("S1", 16) + "|, NOW |G2-S2|, svc_depth_elapsed ",
        100, " sec (base 60 sec)"));
  }
}

TEST_F(Service, TheEleventhLevelStartsAfresh) {
  const auto records = trace([&] {
    for (int i = 0; i < 10; ++i) ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
    ASSERT_EQ(start({.gid = "G2", .svc_id = "SERVICE-OF-20-CHARS-"}), 0);
    EXPECT_EQ(entry().entry_depth, 1);
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
    // Texts that end where their memory ends are not read beyond their fields for a log line
    // either.
    for (const int len : {INT32_MIN, -1, INT32_MAX})
      EXPECT_EQ(end({.gid = {guarded(kTopGid), len}, .svc_id = {guarded("SERVICE-16-CHARS"), len}}),
                TRAN_RC_DEPTH);
    EXPECT_EQ(end({}), TRAN_RC_DEPTH);
  });
  EXPECT_TRUE(records.empty());
  const std::string middle = "|-|" + std::to_string(pid()) + "|-|4660|, SVC (";
  const std::string begin = "<!> END service_depth error!(val:0 (MAX:10)) GID-PID-TID|";
  EXPECT_EQ(collector.count_logged(begin + "GI" + middle + "SVC)."), 1);
  EXPECT_EQ(collector.count_logged(begin + kGid30 + middle + "SERVICE-16-CHARS)."), 2);
  EXPECT_EQ(collector.count_logged(begin + kTopGid + middle + "SERVICE-16-CHARS)."), 1);
  EXPECT_EQ(collector.count_logged(begin + "null" + middle + "null)."), 1);
}

TEST_F(Service, TheResponseTimeIsTheTimeBetweenStartAndEnd) {
  Shared<std::array<std::int64_t, 4>> moments;
  const auto records = trace([&] {
    auto& at = *moments;
    at[0] = clock_us();
    ASSERT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
    at[1] = clock_us();
    while (clock_us() < at[1] + 20'000) continue;
    entry().dbio_elapsed_total = 1'234'567;
    at[2] = clock_us();
    ASSERT_EQ(end({}), 0);
    at[3] = clock_us();
    const TimeVal& from = entry().svc_start_time;
    const TimeVal& to = entry().svc_end_time;
    EXPECT_GE(from.sec * 1'000'000 + from.usec, at[0]);
    EXPECT_GE(to.sec * 1'000'000 + to.usec, at[2]);
    EXPECT_LE(to.sec * 1'000'000 + to.usec, at[3]);
  });
  ASSERT_EQ(types_of(records), "12");
  const auto& at = *moments;
  const long elapsed = std::stol(body_field(records[1], "elapsed_us"));
  EXPECT_GE(elapsed, at[2] - at[1]);
  EXPECT_LE(elapsed, at[3] - at[0]);
  EXPECT_EQ(body_field(records[1], "dbio_elapsed_us"), "0001234567");
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
      {"the longest times that fit", 0, 9'999'999'999, nullptr, nullptr, 9'999'999'999,
       "071320000000", "095959999999", "9999999999", "9999999999"},
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
      const bool is_given = c.start_time != nullptr;
      EXPECT_EQ(entry().preset_time.sec, is_given ? moment(c.from).sec : 0);
      EXPECT_EQ(entry().svc_start_time.usec, is_given ? 0 : moment(c.from).usec);
      ASSERT_EQ(start({.gid = "G", .svc_id = "S", .time_str = "111111111111"}), 0);
      ASSERT_EQ(end({.time_str = "111111111111"}), 0);
      entry().preset_time = moment(c.to);
      entry().dbio_elapsed_total = c.dbio;
      ASSERT_EQ(end({.time_str = c.end_time}), 0);
      EXPECT_EQ(entry().preset_time.sec, c.end_time != nullptr ? moment(c.to).sec : 0);
    });
    ASSERT_EQ(types_of(records), "I1122");
    EXPECT_EQ(field_of(records[1], kTime), c.shown_start);
    EXPECT_EQ(field_of(records[4], kTime), c.shown_end);
    EXPECT_EQ(body_field(records[4], "elapsed_us"), c.elapsed);
    EXPECT_EQ(body_field(records[4], "dbio_elapsed_us"), c.dbio_elapsed);
    const std::time_t today = time(nullptr) + 9 * 3600;
    char date[9];
    std::strftime(date, sizeof date, "%Y%m%d", std::gmtime(&today));
    EXPECT_EQ(field_of(records[1], kDate), date) << "the current date, whatever the time";
  }
}

TEST_F(Service, AnOutermostEndReportsTheStatisticsOfItsCalls) {
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = "G", .svc_id = "S1"}), 0);
    ASSERT_EQ(start({.gid = "G", .svc_id = "S2"}), 0);
    entry().call_cnt = 3;
    ASSERT_EQ(end({}), 0);
    EXPECT_EQ(error({}), 0) << "the outermost service has not ended";
    entry().fetch_rows = 7;
    entry().fetch_time = 12'005;
    std::strcpy(entry().db_user, "scott");
    std::strcpy(entry().db_sid, "ORCL");
    ASSERT_EQ(end({}), 0);
    ASSERT_EQ(start({.gid = "G", .svc_id = "S1"}), 0);
    ASSERT_EQ(end({}), 0);
  });
  ASSERT_EQ(types_of(records), "1129I212");
  EXPECT_EQ(text_of(records[4], kGid), "G");
  EXPECT_EQ(text_of(records[4], kSvcId), "S1");
  EXPECT_EQ(body_field(records[4], "message"),
            euc_kr("처리 모듈(함수)통계 [ 총 호출 3 건 ] [ Max Depth 0 ] [ BIZCALL(Method) 0건 "
                   "(전체 Avg/Max   0.00/0 ms, 개별 Max 0 ms) ], [ DBIO 0건 (Avg/Max   0.00/0 ms) "
                   "fetch 7 rows (12.5 ms), (DBConn scott/ORCL) ]"));
}

TEST_F(Service, AnEndWithAnotherGidReportsTheChangeInOrder) {
  struct {
    const char* name;
    Arg gid;
    const char *shown, *header_gid;  // null: nothing has changed
  } const cases[] = {
      {"another", "G-OF-THE-END", "G-OF-THE-END", "G-OF-THE-END"},
      {"another in its thirtieth character", "12345678901234567890123456789xAB",
       "12345678901234567890123456789x", "12345678901234567890123456789xAB"},
      {"another behind it", "123456789012345678901234567890xx", nullptr, nullptr},
      {"only its beginning", {kTopGid.c_str(), 5}, "12345", "12345"},
      {"a given but empty one", {"", 0}, "", ""},
      {"none", nullptr, nullptr, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = kTopGid.c_str(), .svc_id = "S-START"}), 0);
      ASSERT_EQ(end({.hdr_cd = "HH", .gid = c.gid, .svc_id = "S-END"}), 0);
    });
    ASSERT_EQ(types_of(records), c.shown != nullptr ? "1IIV2" : "12");
    EXPECT_EQ(text_of(records.back(), kGid), kTopGid);
    EXPECT_EQ(text_of(records.back(), kSvcId), "S-START");
    EXPECT_EQ(text_of(records.back(), kHdrCd), "HH");
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
    collector.que_info().log_flag_set = 0xFF & ~0x04;
    ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
    ASSERT_EQ(end({.gid = "G4", .svc_id = "S4"}), 0);
  });
  ASSERT_EQ(types_of(records), "11221II2");
  EXPECT_EQ(text_of(records[6], kSvcId), "S4");
  EXPECT_EQ(text_of(records[7], kSvcId), "S1");
  EXPECT_TRUE(collector.logged("(I) EVENT_GLOBAL_ID_CHANGED (GID G3) TRAN_EVENT ret = 100"));
}

}  // namespace
}  // namespace varn::test
