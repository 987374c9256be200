// The service levels of a thread: starts and ends, nested, linked, left behind and refused, and
// what an end reports.
#include <ctime>
#include <tuple>

#include "records/traced.h"

namespace varn::test {
namespace {

using Service = RecordTest;

const std::string kGid30 = "123456789012345678901234567890";
const std::string kTopGid = kGid30 + "AB";
const std::string kTopSvcId = padded("S1", 16);
constexpr Field kNumbers{"numbers", 148, 24};
const std::string kNoTimes = "0000000000 0000000000 0";

// A line for each record: its type, header code, GID, service id and body.
std::string lines_of(const std::vector<Record>& records) {
  std::string lines;
  for (const Record& record : records) {
    lines += type_of(record);
    for (const Field& field : {kHdrCd, kGid, kSvcId, Field{"body", 148, 632}})
      lines += '|' + text_of(record, field);
    lines += '\n';
  }
  return lines;
}

TEST_F(Service, LevelsNestAndTheEntryShowsTheOutermost) {
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = "G", .svc_id = "S1", .chnl_typ_cd = "ICC"}), 0);
    PTRC_HASH_ENT& own = entry();
    own.fetch_cnt = own.fetch_rows = own.fetch_time = 5;
    own.svc_start_time.sec = own.svc_mark_time = INT32_MAX;
    own.call_cnt = 3;
    for (int depth = 2; depth <= 9; ++depth) {
      ASSERT_EQ(start({.gid = "G", .svc_id = "S2", .chnl_typ_cd = "WEB"}), 0);
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
    EXPECT_EQ(own.fetch_cnt + own.fetch_rows + own.fetch_time, 15);
    ASSERT_EQ(end({}), 0);
    EXPECT_EQ(own.tran_state, 'g');
    EXPECT_EQ(own.entry_depth, 0);
    EXPECT_LT(own.svc_mark_time, INT32_MAX);
    EXPECT_EQ(error({}), TRAN_RC_DEPTH);
    own.svc_mark_time = 0;
    ASSERT_EQ(start({.gid = "G", .svc_id = "S1"}), 0);
    EXPECT_GT(own.svc_mark_time, time(nullptr) - 60);
    EXPECT_EQ(own.chnl_class, 'O');
    EXPECT_EQ(own.fetch_cnt + own.fetch_rows + own.fetch_time, 0);
  });
  EXPECT_FALSE(collector.logged("CHECK_LOG_BIT"));
  ASSERT_EQ(types_of(records), std::string(9, '1') + std::string(8, '2') + "9I21");
  for (std::size_t i = 0; i < 17; ++i) {
    const std::size_t depth = i < 9 ? i + 1 : 18 - i;
    EXPECT_EQ(text_of(records[i], kSvcId), depth == 1 ? "S1" : "S2");
    EXPECT_EQ(text_of(records[i], kNumbers), kNoTimes + std::to_string(depth));
  }
}

TEST_F(Service, TheFirstThirtyCharactersOfTheGidSayWhetherAStartIsLinked) {
  const std::tuple<Arg, const char*, bool> cases[] = {
      {"123456789012345678901234567890XY", "WEB", false},
      {"12345678901234567890123456789xAB", "WEB", true},
      {nullptr, "WEB", false},
      {{"", 0}, "WEB", true},
      {"G2", "ICT", false},
      {"G2", "ICCX", false},  // cut to its field
      {"G2", "IC", true},
  };
  for (const auto& c : cases) {
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = kTopGid.c_str(), .svc_id = "S1"}), 0);
      ASSERT_EQ(start({.gid = std::get<0>(c), .svc_id = "S2", .chnl_typ_cd = std::get<1>(c)}), 0);
    });
    EXPECT_EQ(types_of(records), std::get<2>(c) ? "1II1" : "11") << "case " << &c - cases;
  }
}

TEST_F(Service, ALinkedTransactionIsAnnouncedToBothServicesAndInTheLog) {
  const std::string gid30 = "abcdefghijABCDEFGHIJabcdefghij", gid = gid30 + "YZ";
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = kTopGid.c_str(), .svc_id = "S1"}), 0);
    entry().svc_mark_time = time(nullptr) - 30;
    ASSERT_EQ(start({.hdr_cd = "HH", .gid = gid.c_str(), .svc_id = "SERVICE-OF-20-CHARS-"}), 0);
  });
  EXPECT_EQ(lines_of(records),
            "1||" + kTopGid + "|S1|" + kNoTimes + "1\nI||" + kTopGid +
                "|S1|Linked Transaction Created [ GID '" + gid30 +
                "' ] , [ Service SERVICE-OF-20-CH - Depth #2 ]\nI||" + gid +
                "|SERVICE-OF-20-CH|Linked Main Service Transaction Exist [ GID '" + kTopGid +
                "' ] , [ Service " + kTopSvcId + "]\n1|HH|" + gid + "|SERVICE-OF-20-CH|" +
                kNoTimes + "2\n");
  EXPECT_TRUE(logged_seconds("(I) START - service depth change (1)->(2), New GID_UNI -> KEEP |" +
                                 kTopGid + "-" + kTopSvcId + "|, NOW |" + gid30 +
                                 "-SERVICE-OF-20-CH|, svc_depth_elapsed ",
                             30, " sec(base 60 sec)"));
}

TEST_F(Service, LevelsOlderThanTheTimeOutAreDroppedByTheNextStart) {
  const std::pair<const char*, int> cases[] = {
      {"G2", 100}, {"G1", 60}, {"G1", 55}, {"G1", -100}, {nullptr, 100}};
  for (const auto& [gid, age] : cases) {
    const auto records = trace([&, gid = gid, age = age] {
      ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
      ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
      entry().svc_mark_time = time(nullptr) - age;
      ASSERT_EQ(start({.gid = gid, .svc_id = "S2"}), 0);
    });
    ASSERT_EQ(types_of(records), "111") << "nothing is linked at " << age;
    EXPECT_EQ(text_of(records[2], kNumbers), kNoTimes + (age >= 60 ? "1" : "3")) << age;
  }
  EXPECT_FALSE(collector.logged("CHECK_LOG_BIT")) << "the start bit went with the levels";
  const std::string begin = "<!> START - service depth init (2)->(0)", gid = padded("G1", 32);
  for (const std::string& line :
       {", New GID_UNI -> KEEP |" + gid + "-" + kTopSvcId + "|, NOW |G2-S2|,",
        " GID-PID-TID |" + gid + "|-|" + std::to_string(pid()) + "|-|4660|, SVC (" + kTopSvcId +
            ")->(S2)"})
    EXPECT_TRUE(logged_seconds(begin + line + " svc_depth_elapsed ", 100, " sec (base 60 sec)"));
}

TEST_F(Service, TheEleventhLevelStartsAfresh) {
  const auto records = trace([&] {
    for (int i = 0; i < 10; ++i) ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
    ASSERT_EQ(start({.gid = "G2", .svc_id = "SERVICE-OF-20-CHARS-"}), 0);
    ASSERT_EQ(end({}), 0);
    EXPECT_EQ(end({}), TRAN_RC_DEPTH);
  });
  ASSERT_EQ(types_of(records), std::string(11, '1') + "2");
  EXPECT_EQ(body_field(records[10], "depth"), "01");
  for (const std::string& line :
       {"<!> START service_depth MAX error!(val:10 (MAX:10)) GID-PID-TID|G2|-|" +
            std::to_string(pid()) + "|-|4660|, SVC (SERVICE-OF-20-CH).",
        "[CHECK_LOG_BIT] NOK, set START_BIT [ tid : 4660, log_bit : 1, PID : " +
            std::to_string(pid()) + ", GID - Keep {" + padded("G1", 32) +
            "} Now {G2}, SVC_ID - Keep {" + kTopSvcId + "} Now {SERVICE-OF-20-CH} ]"})
    EXPECT_EQ(collector.count_logged(line), 1) << line;
}

TEST_F(Service, AnEndWithoutAServiceIsRefusedAndLogged) {
  EXPECT_TRUE(trace([&] {
                EXPECT_EQ(end({.gid = {"GID", 2}, .svc_id = "SVC"}), TRAN_RC_DEPTH);
                EXPECT_EQ(entry().entry_depth, 0);
                EXPECT_EQ(entry().tran_state, 'd');
                // The texts end where their memory ends.
                for (const int len : {-1, INT32_MAX})
                  EXPECT_EQ(end({.gid = {guarded(kTopGid), len},
                                 .svc_id = {guarded("SERVICE-16-CHARS"), len}}),
                            TRAN_RC_DEPTH);
              }).empty());
  const std::string middle = "|-|" + std::to_string(pid()) + "|-|4660|, SVC (";
  EXPECT_TRUE(collector.logged("<!> END service_depth error!(val:0 (MAX:10)) GID-PID-TID|GI" +
                               middle + "SVC)."));
  EXPECT_EQ(collector.count_logged(middle + "SERVICE-16-CHARS)."), 2);
}

TEST_F(Service, TimesSetAheadAreUsedOnceAndNumbersAreCutToTheirFields) {
  collector.environment["TZ"] = "KST-9";
  struct {
    std::int64_t from, to, dbio;  // times: microseconds since 07:13:20
    Arg start_time, end_time;
    const char* shown;
  } const cases[] = {
      {250'000, 3'100'000, 42, {}, {}, "071320250000 071323100000 0002850000 0000000042"},
      {0, 10'000'000'000, INT64_MAX, {}, {}, "071320000000 100000000000 9999999999 9999999999"},
      {3'000'000, 0, -5, {}, {}, "071323000000 071320000000 0000000000 0000000000"},
      {0, 1'000'000, 42, {}, "235959123456", "071320000000 235959123456 0000000000 0000000000"},
      {250'000, 250'000, 42, "010203000004", {}, "010203000004 071320250000 0000250000 0000000042"},
  };
  const auto moment = [](std::int64_t us) {
    return TimeVal{1'700'000'000 + us / 1'000'000, us % 1'000'000};
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.shown);
    const auto records = trace([&] {
      ASSERT_EQ(info({.gid = "G", .svc_id = "S"}), 0);
      entry().svc_start_time = moment(0);
      entry().preset_time = moment(c.from);
      ASSERT_EQ(start({.gid = "G", .svc_id = "S", .time_str = c.start_time}), 0);
      EXPECT_EQ(entry().preset_time.sec != 0, c.start_time.text != nullptr);
      ASSERT_EQ(start({.gid = "G", .svc_id = "S", .time_str = "111111111111"}), 0);
      ASSERT_EQ(end({.time_str = "111111111111"}), 0);
      entry().preset_time = moment(c.to);
      entry().dbio_elapsed_total = c.dbio;
      ASSERT_EQ(end({.time_str = c.end_time}), 0);
      EXPECT_EQ(entry().preset_time.sec != 0, c.end_time.text != nullptr);
      EXPECT_EQ(entry().svc_end_time.sec == moment(c.to).sec, c.end_time.text == nullptr);
    });
    ASSERT_EQ(types_of(records), "I1122");
    EXPECT_EQ(text_of(records[1], kTime) + ' ' + text_of(records[4], kTime) + ' ' +
                  text_of(records[4], kNumbers),
              std::string(c.shown) + " 01");
    EXPECT_EQ(field_of(records[1], kDate), field_of(records[2], kDate)) << "always the current one";
  }
}

TEST_F(Service, AnEndWithAnotherGidReportsTheChangeInOrder) {
  const std::pair<Arg, std::string> cases[] = {
      {"12345678901234567890123456789xAB", "12345678901234567890123456789xAB"},
      {{kTopGid.c_str(), 5}, "12345"},
      {{"", 0}, ""},
  };
  const Arg noon = "120000000000", like = "123456789012345678901234567890xx";
  for (const auto& [gid, sent] : cases) {
    SCOPED_TRACE(sent);
    const auto records = trace([&, gid = gid] {
      ASSERT_EQ(start({.gid = kTopGid.c_str(), .svc_id = "S-START"}), 0);
      ASSERT_EQ(start({.gid = kTopGid.c_str(), .svc_id = "S-START"}), 0);
      ASSERT_EQ(end({.hdr_cd = "HH", .gid = like, .svc_id = "S-END"}), 0);
      ASSERT_EQ(end({.hdr_cd = "HH", .gid = gid, .svc_id = "S-END", .time_str = noon}), 0);
    });
    const std::string shown = sent.substr(0, 30), level = "|" + kTopGid + "|S-START|";
    const std::string message = "|< Warning!! > GID 30 Bytes Changed.[ Start GID '" + kGid30 +
                                "' -> End GID '" + shown + "' ]\n";
    EXPECT_EQ(lines_of(records), "1|" + level + kNoTimes + "1\n1|" + level + kNoTimes + "2\n2|HH" +
                                     level + kNoTimes + "2\nI||" + kTopGid + "|S-END" + message +
                                     "I||" + sent + "|S-END" + message + "V|" + level +
                                     padded("1801", 23) + message.substr(1) + "2|HH" + level +
                                     kNoTimes + "1\n");
    EXPECT_TRUE(collector.logged("EVENT_GLOBAL_ID_CHANGED (GID " + shown + ") TRAN_EVENT ret = 0"));
  }
}

TEST_F(Service, NoticesThatAreSwitchedOffDoNotStopTheService) {
  const auto records = trace([&] {
    collector.que_info().log_flag_set = 0xFF & ~0x24;
    ASSERT_EQ(start({.gid = "G1", .svc_id = "S1"}), 0);
    ASSERT_EQ(start({.gid = "G2", .svc_id = "S2"}), 0);
    ASSERT_EQ(end({.gid = "G3"}), 0);
    collector.que_info().log_flag_set = 0xFF & ~0x04;
    ASSERT_EQ(end({.gid = "G4", .svc_id = "S4"}), 0);
  });
  ASSERT_EQ(types_of(records), "112II2");
  EXPECT_EQ(text_of(records[5], kSvcId), "S1");
  EXPECT_TRUE(collector.logged("(I) EVENT_GLOBAL_ID_CHANGED (GID G3) TRAN_EVENT ret = 100"));
}

}  // namespace
}  // namespace varn::test
