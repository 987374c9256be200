// Calls and statements taken apart, and transactions put together from records.
#include "collector/tree.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "collector/call_text.h"
#include "tools/varn/tree_text.h"

namespace varn::test {
namespace {

TEST(CallText, IsTakenApartWhateverTheFunctionIsCalled) {
  const auto call = parse_call(
      "2,10,1.001435,0.000002,0.-00003,0.000004,1795403156.412474,1795403157.413909,"
      "[][find(int) at (x) at main (a (b)/c::d.cpp::00091){12}]#RC -3");
  ASSERT_TRUE(call);
  EXPECT_EQ(call->level, 2);
  EXPECT_EQ(call->trace_depth, 10);
  EXPECT_EQ(call->total_us, 1'001'435);
  EXPECT_EQ(call->own_us, 2);
  EXPECT_EQ(call->business_us, -3);
  EXPECT_EQ(call->database_us, 4);
  EXPECT_EQ(call->start_us, 1795403156412474);
  EXPECT_EQ(call->end_us, 1795403157413909);
  EXPECT_EQ(call->label, "");
  EXPECT_EQ(call->line, 91);
  EXPECT_EQ(call->number, 12);
  EXPECT_EQ(call->rc, -3);
  EXPECT_FALSE(call->db);

  const std::string times = "1,10,0.000001,0.000000,0.000000,0.000000,1.000000,1.000001,";
  const std::string of_database = times +
                                  "[][db_sum(A&, B) at limit (l.cpp::00044){2}]#SQLCODE -1, #RC 7 "
                                  "(line 41) fetch 3 rows (12.45 ms) DB ledger/BANKDB";
  const auto db = parse_call(of_database);
  ASSERT_TRUE(db && db->db);
  EXPECT_EQ(db->function, "db_sum(A&, B)");
  EXPECT_EQ(db->place, "limit");
  EXPECT_EQ(db->source, "l.cpp");
  EXPECT_EQ(db->rc, 7);
  EXPECT_EQ(db->db->sqlcode, -1);
  EXPECT_EQ(db->db->line, 41);
  EXPECT_EQ(db->db->rows, 3);
  EXPECT_EQ(db->db->fetch_us, 12'045);
  EXPECT_EQ(db->db->connection, "ledger/BANKDB");

  const std::string half = times + "[METHOD][a_long_name at a_long_pla";
  const auto cut = parse_call(half);
  ASSERT_TRUE(cut);
  EXPECT_EQ(cut->function, "a_long_name");
  EXPECT_FALSE(cut->rc);
  for (const char* const bad :
       {"", "1", "x,10,0.000001,0.000000,0.000000,0.000000,1.000000,1.000001,[][f]#RC 0",
        "1,10,0.000001,0.000000,0.000000,0.000000,1.000000,99999999999999999999.000001,[][f]#RC 0",
        "1,10,0.000001,0.9999999,0.000000,0.000000,1.000000,1.000001,[][f]#RC 0"})
    EXPECT_FALSE(parse_call(bad)) << bad;
}

TEST(SqlText, HasItsNumbersInTheFirstPieceOnly) {
  const auto first = parse_sql("1,2,1,3,0.001426,9999,db_sum(A&),SELECT a, b");
  ASSERT_TRUE(first);
  EXPECT_EQ(first->statements, 2);
  EXPECT_EQ(first->executions, 3);
  EXPECT_EQ(first->elapsed_us, 1426);
  EXPECT_EQ(first->kind, 9999);
  EXPECT_EQ(first->function, "db_sum(A&)");
  EXPECT_EQ(first->text, "SELECT a, b");
  EXPECT_EQ(parse_sql("1,2,2,FROM t, u")->text, "FROM t, u");
  EXPECT_FALSE(parse_sql("1,2,FROM t"));
  EXPECT_FALSE(parse_sql("1,2,1,FROM t"));
}

// A record of one thread and GID, at a time of 09:00 given in microseconds.
class Records {
 public:
  Records() {
    trees_ = std::make_unique<TraceTrees>(
        [this](const TraceTree& tree) { shown_.push_back(tree_text(tree)); });
  }

  void service(char rec_type, const char* svc_id, const char* depth, int us,
               const char* elapsed = "") {
    TRAN_LOGF_QUE_DATA data = record(rec_type, svc_id, us);
    put(data, kDepth, depth);
    put(data, kElapsed, elapsed);
    add(data);
  }

  void text(char rec_type, const std::string& text, int us) {
    TRAN_LOGF_QUE_DATA data = record(rec_type, "SVC", us);
    put(data, kCallBody[0], text);
    add(data);
  }

  // A call from one microsecond to another.
  void call(char rec_type, int level, const char* function, int from, int to,
            const char* outcome = "#RC 0") {
    const auto seconds = [](int us) {
      char number[32];
      std::snprintf(number, sizeof number, "%d.%06d", us / 1'000'000, us % 1'000'000);
      return std::string(number);
    };
    const std::string zero = "0.000000,";
    text(rec_type,
         std::to_string(level) + ",10," + seconds(to - from) + ',' + zero + zero + zero + at(from) +
             ',' + at(to) + ",[][" + function + " at  (::00000){1}]" + outcome,
         to);
  }

  const std::vector<std::string>& shown() const { return shown_; }
  TraceTrees& trees() { return *trees_; }

 private:
  // 2026-11-23 09:00 local time plus some microseconds, since 1970.
  static std::string at(int us) {
    std::tm tm = {};
    tm.tm_year = 126, tm.tm_mon = 10, tm.tm_mday = 23, tm.tm_hour = 9, tm.tm_isdst = -1;
    char text[32];
    std::snprintf(text, sizeof text, "%lld.%06d", static_cast<long long>(std::mktime(&tm)), us);
    return text;
  }

  static void put(TRAN_LOGF_QUE_DATA& data, const Field& field, const std::string& text) {
    std::memcpy(data.view + field.at, text.data(), std::min<std::size_t>(text.size(), field.width));
  }

  static TRAN_LOGF_QUE_DATA record(char rec_type, const char* svc_id, int us) {
    TRAN_LOGF_QUE_DATA data;
    std::memset(data.view, ' ', sizeof data.view);
    data.length = record_kind(rec_type)->length();
    data.view[0] = rec_type;
    char time[16];
    std::snprintf(time, sizeof time, "090000%06d", us);
    put(data, kGid, "GID");
    put(data, kProcNm, "p");
    put(data, kPid, "00000001");
    put(data, kTid, "000000000000002");
    put(data, kSvcId, svc_id);
    put(data, kDate, "20261123");
    put(data, kTime, time);
    return data;
  }

  void add(const TRAN_LOGF_QUE_DATA& data) {
    DecodedRecord decoded;
    decode(data, kRecordTextSize, decoded);
    trees_->add(decoded);
  }

  std::vector<std::string> shown_;
  std::unique_ptr<TraceTrees> trees_;
};

TEST(TraceTrees, SetCallsStatementsAndNoticesWhereTheyHappened) {
  Records records;
  records.service('1', "OUTER", "01", 1000);
  records.call('C', 2, "before_inner", 1010, 1020);
  records.call('C', 1, "before", 1005, 1030);
  records.text('I', "said in transfer", 1045);
  records.service('1', "INNER", "02", 1050);
  records.text('Q', "1,1,1,2,0.000020,1,db_read(),SELECT *\n  FROM t" + std::string(300, '-'),
               1060);
  records.text('Q', "1,1,2,WHERE x", 1060);
  records.call('B', 3, "db_read()", 1055, 1080,
               "#SQLCODE 1403, #RC 0 (line 1) fetch 2 rows (0.5 ms) DB /");
  records.service('2', "INNER", "02", 1090);
  records.call('C', 3, "same", 1091, 1092);
  records.call('C', 3, "same", 1092, 1093);
  records.call('C', 2, "inner", 1048, 1095);
  records.call('C', 1, "transfer", 1040, 1100, "#RC -2");
  EXPECT_TRUE(records.shown().empty());
  records.service('2', "OUTER", "01", 1200, "0000000200");
  ASSERT_EQ(records.shown().size(), 1U);
  EXPECT_EQ(
      records.shown()[0],
      "  total ms     own ms      db ms GID  09:00:00.001000 p(1) thread 2\n"
      "     0.200      0.115            OUTER\n"
      "     0.025      0.000            ├─ before\n"
      "     0.010      0.000            │  └─ before_inner\n"
      "     0.060      0.000            └─ transfer  rc=-2\n"
      "                                    ├─ info said in transfer\n"
      "     0.047      0.000               └─ inner\n"
      "     0.040      0.015      0.025       ├─ INNER\n"
      "     0.025      0.000      0.025       │  └─ db_read()  sqlcode=1403 fetched=2 in 0.005ms\n"
      "     0.020                             │     └─ SELECT * FROM t" +
          std::string(300, '-') +
          " WHERE x  executed=2\n"
          "     0.002      0.000                  └─ 2 x same\n"
          "\n");
}

TEST(TraceTrees, ShowWhatHasNoStartOrNoEnd) {
  Records records;
  records.text('I', "outside", 500);
  records.call('C', 1, "alone", 600, 610);
  records.service('2', "LATE", "01", 620);
  records.service('1', "LOST", "01", 700);
  records.service('1', "LOST_TOO", "02", 700);
  records.service('1', "NEXT", "01", 800);  // the end of the one before was lost
  records.text('C', "not a call", 810);
  records.text('C', "52,10,0.000001,0.000000,0.000000,0.000000,1.000000,1.000001,[][deep]#RC 0",
               810);
  records.trees().finish();
  ASSERT_EQ(records.shown().size(), 4U);
  EXPECT_EQ(records.shown()[0], "09:00:00.000500 p(1) thread 2 GID info outside\n\n");
  EXPECT_NE(records.shown()[1].find(
                "SVC  (its start was not seen)\n     0.010      0.000            └─ alone"),
            std::string::npos)
      << records.shown()[1];
  EXPECT_NE(records.shown()[2].find("LOST  (its end was not seen)"), std::string::npos);
  EXPECT_NE(records.shown()[2].find("└─ LOST_TOO  (its end was not seen)"), std::string::npos);
  EXPECT_NE(records.shown()[3].find("├─ call not a call\n"), std::string::npos)
      << records.shown()[3];
  EXPECT_NE(records.shown()[3].find("└─ call 52,10,"), std::string::npos);
}

TEST(TraceTrees, AreBoundedWhateverTheRecordsSay) {
  Records records;
  for (int i = 0; i < 200'001; ++i) records.call('C', 1 + i % 51, "f", i % 900'000, i % 900'000);
  EXPECT_EQ(records.shown().size(), 1U);
  records.trees().finish();
  EXPECT_EQ(records.shown().size(), 2U);
}

}  // namespace
}  // namespace varn::test
