// SQL of database calls: what is kept, what is sent of it, and the setters beside it.
#include "records/calls.h"

namespace varn::test {
namespace {

struct SqlArgs {
  int mode = TRAN_SQL_ADD;
  Arg date_str = {}, time_str = {};
  int kind = 1;
  std::int64_t start[2] = {};
  std::int64_t end[2] = {};
};

int sql(const std::string& text, const SqlArgs& args = {}) {
  return TRAN_SQL_STMT(kThread, args.mode, args.date_str.text, args.date_str.len,
                       args.time_str.text, args.time_str.len, args.kind, args.start, args.end,
                       text.c_str());
}

class SqlTest : public CallTest {
 protected:
  // The records of one database call and of what happens inside it.
  std::vector<Record> in_dbio(const std::function<void()>& body, const char* name = "dbSelect") {
    return in_service([&] {
      ASSERT_EQ(call_start(name), 0);
      body();
      ASSERT_EQ(call_end(name), 0);
    });
  }
};

// The text of the pieces behind their prefixes, four commas more in the first.
std::string joined(const std::vector<std::string>& bodies) {
  std::string text;
  for (std::size_t i = 0; i < bodies.size(); ++i) {
    std::size_t at = 0;
    for (int commas = i == 0 ? 7 : 3; commas > 0; --commas) at = bodies[i].find(',', at) + 1;
    text += bodies[i].substr(at);
  }
  return text;
}

TEST_F(SqlTest, StatementsAreSentBeforeTheirCallInPieces) {
  const auto records = in_dbio(
      [&] {
        EXPECT_EQ(sql("BEGIN", {.kind = -7, .start = {100, 999'999}, .end = {102, 1}}), 0);
        EXPECT_EQ(sql("SELECT " + std::string(990, 'x'), {.end = {0, 5}}), 0);
      },
      "dbInsertRow(int,String)");
  EXPECT_EQ(types_of(records), "QQQQB");
  const auto bodies = bodies_of(records, 'Q');
  EXPECT_EQ(bodies[0], "1,2,1,1,1.000002,-7,dbInsertRow(int),BEGIN");
  EXPECT_TRUE(bodies[1].starts_with("2,2,1,1,0.000005,1,dbInsertRow(int),SELECT xxx")) << bodies[1];
  EXPECT_TRUE(bodies[2].starts_with("2,2,2,xxx")) << bodies[2];
  EXPECT_TRUE(bodies[3].starts_with("2,2,3,xxx")) << bodies[3];
  EXPECT_EQ(bodies[1].size(), 350U);
  EXPECT_EQ(records[1].length, 499U);
}

TEST_F(SqlTest, HeaderIsWrittenOnceABatch) {
  const auto records = in_dbio([&] {
    EXPECT_EQ(sql("A", {.date_str = "20300102", .time_str = "030405678901"}), 0);
    EXPECT_EQ(sql("BB", {.date_str = "20310102"}), 0);
    EXPECT_EQ(call_end("dbSelect"), 0);
    EXPECT_EQ(call_start("dbNext"), 0);
    EXPECT_EQ(sql("C"), 0);
  });
  ASSERT_EQ(types_of(records), "QQBQB");
  EXPECT_EQ(text_of(records[0], kGid), "GID-OF-CALLS");
  EXPECT_EQ(text_of(records[0], kSvcId), "SVC00001");
  EXPECT_EQ(text_of(records[0], kPid), text_of(records[2], kPid));
  EXPECT_EQ(std::string(records[1].view + kDate.at, 22), "20300102 030405678901 ");
  EXPECT_EQ(std::string(records[3].view + kDate.at, 22), "20260921 141320000000 ");
}

TEST_F(SqlTest, RepeatsAreCountedAndFiveStatementsKept) {
  const auto records = in_dbio([&] {
    for (int i = 1; i <= 3; ++i) EXPECT_EQ(sql("SELECT 1", {.end = {0, i}}), 0);
    EXPECT_EQ(sql("SELECT 2"), 0) << "of the same length and kind, dropped";
    EXPECT_EQ(entry().sql_cnt, 1);
    for (const char* const text : {"1", "22", "333", "4444", "4444"}) EXPECT_EQ(sql(text), 0);
    EXPECT_EQ(sql("55555"), 113);
    EXPECT_EQ(sql("4444", {.kind = 2}), 113);
    entry().sql_cnt = 6;
    EXPECT_EQ(sql("4444"), 113);
    entry().sql_cnt = 5;
  });
  EXPECT_EQ(bodies_of(records, 'Q'),
            (std::vector<std::string>{
                "1,5,1,3,0.000003,1,dbSelect,SELECT 1", "2,5,1,1,0.000000,1,dbSelect,1",
                "3,5,1,1,0.000000,1,dbSelect,22", "4,5,1,1,0.000000,1,dbSelect,333",
                "5,5,1,2,0.000000,1,dbSelect,4444"}));
}

TEST_F(SqlTest, OnlySlowStatementsAreSentAlsoOfACallThatIsNot) {
  const auto records = in_service([&] {
    entry().sql_limit_us = 1000;
    entry().dbio_limit_us = 1'000'000;
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(kThread, 999), -1);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(kThread, 1000), 0);
    EXPECT_EQ(call_start("dbA"), 0);
    EXPECT_EQ(sql("FAST", {.end = {0, 999}}), 0);
    EXPECT_EQ(
        sql("SLOW STATEMENT",
            {.kind = TRAN_SQL_KIND_MS, .start = {1'700'000'000'123}, .end = {1'700'000'000'124}}),
        0);
    EXPECT_EQ(entry().sql_ent[1].stmt_start_tv.sec, 1'700'000'000);
    EXPECT_EQ(entry().sql_ent[1].stmt_start_tv.usec, 123'000);
    EXPECT_EQ(sql("", {.mode = TRAN_SQL_FLUSH}), 0);
    EXPECT_EQ(sql("", {.mode = 2}), 0);
    EXPECT_EQ(entry().sql_cnt, 2);
    EXPECT_EQ(call_end("dbA"), 111);
    EXPECT_EQ(entry().sql_cnt, 0);
  });
  const std::string slow = "2,2,1,1,0.001000,9999,dbA,SLOW STATEMENT";
  EXPECT_EQ(bodies_of(records, 'Q'), (std::vector{slow, slow}));
}

TEST_F(SqlTest, KoreanStatementsOfEveryLengthArriveWhole) {
  // Without blanks: those at the end of a piece cannot be told from its padding.
  const std::string sample =
      euc_kr("SELECT/*고객_잔액을_조회한다*/잔액,예금주FROM계좌WHERE예금주='홍길동';");
  std::string text;
  while (text.size() < 8192) text += sample;
  in_service([&] {
    for (std::size_t length = 1; length <= 8192; length += length < 1100 ? 1 : 591) {
      const std::string whole = text.substr(0, length);
      ASSERT_EQ(call_start("dbSelect"), 0);
      ASSERT_EQ(sql(whole), 0);
      ASSERT_EQ(call_end("dbSelect"), 0);
      ASSERT_TRUE(joined(bodies_of(collector.read_all('Q'), 'Q')) == whole) << length;
    }
    EXPECT_EQ(call_start("dbSelect"), 0);
    EXPECT_EQ(sql(text + text), 0);
    EXPECT_EQ(entry().sql_ent[0].stmt_len, 8192);
    EXPECT_EQ(entry().sql_ent[0].stmt_text, text.substr(0, 8192));
  });
}

TEST_F(SqlTest, NeedsAnOpenDatabaseCall) {
  in_service([&] {
    EXPECT_EQ(sql("A"), 115);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, -1, "x", 1), 115);
    EXPECT_EQ(call_start("f"), 0);
    EXPECT_EQ(sql("A"), 125);
    EXPECT_EQ(sql("A", {.mode = 7}), 125);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, -1, "x", 1), 0);
    EXPECT_EQ(entry().sqlcode, 9999);
    EXPECT_EQ(call_start("dbA"), 0);
    EXPECT_EQ(sql("A"), 0);
    EXPECT_EQ(call_start("f"), 0);
    EXPECT_EQ(entry().sql_cnt, 0) << "a new call discards what is pending";
    EXPECT_EQ(end(kService), 0);
    EXPECT_EQ(sql("A"), 123);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, -1, "x", 1), 123);
    collector.que_info().log_flag_set = 0x7F;
    EXPECT_EQ(sql("A"), 100);
    EXPECT_EQ(TRAN_SQL_ID(kThread, "A", 1), 100);
  });
}

TEST_F(SqlTest, FailedSqlKeepsItsCodeAndRaisesAnEvent) {
  const std::string message = "ORA-00001: " + std::string(600, 'm');
  const auto records = in_dbio([&] {
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, 0, "none", 1), 0);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, 1403, "no data", 1), 0);
    EXPECT_EQ(entry().sqlcode, 0) << "the first outcome without an error stays";
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, -1, message.c_str(), -42), 0);
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, 1403, "no data", 1), 0);
    EXPECT_EQ(entry().sqlcode, -1);
    EXPECT_EQ(std::string(entry().sql_errm, 100), message.substr(0, 100));
    collector.que_info().log_flag_set = 0xFF & ~0x04;
    EXPECT_EQ(TRAN_SET_SQLCA_INFO(kThread, -2, nullptr, 1), 0);
  });
  ASSERT_EQ(types_of(records), "VB");
  EXPECT_EQ(body_field(records[0], "code"), "1810");
  EXPECT_EQ(text_of(records[0], kGid), "GID-OF-CALLS");
  EXPECT_EQ(text_of(records[0], kSvcId), "SVC00001");
  EXPECT_EQ(body_field(records[0], "message"),
            (euc_kr("ORA에러발생, [dbSelect:-42] SQLCODE(-1) ") + message).substr(0, 512));
  EXPECT_NE(bodies_of(records, 'B')[0].find("#SQLCODE -2, "), std::string::npos);
}

TEST_F(SqlTest, SettersWriteToTheSharedEntry) {
  in_service([&] {
    PTRC_HASH_ENT& own = entry();
    EXPECT_EQ(TRAN_SQL_ID(kThread, guarded("select-customer"), 15), 0);
    EXPECT_EQ(std::string(own.sql_id, 201), padded("select-customer", 201));
    EXPECT_EQ(TRAN_SET_DBIO_STS(kThread, 0x102), 0);
    EXPECT_EQ(own.in_dbio, 2);
    EXPECT_EQ(TRAN_SET_FETCH_INFO(kThread, 3, 1'500, -9), 0);
    EXPECT_EQ(TRAN_SET_FETCH_INFO(kThread, 4, 0x1'0000'0002, 10), 0);
    EXPECT_EQ((std::array{own.fetch_cnt, own.fetch_rows, own.fetch_time}),
              (std::array{2, 7, 1502}));
    EXPECT_EQ((std::array{own.cur_fetch_rows, own.cur_fetch_time_us, own.sql_line}),
              (std::array{4, 2, 10}));
    set_clock(kMorning + 17);
    EXPECT_EQ(TRAN_SET_TIME(kThread), 0);
    EXPECT_EQ(own.preset_time.sec, kMorning / 1'000'000);
    EXPECT_EQ(own.preset_time.usec, 17);
    EXPECT_EQ(TRAN_GET_HASH_CODE(99, nullptr, nullptr, 0, "a"), static_cast<int>(0xca2e9442));
    EXPECT_EQ(TRAN_GET_HASH_CODE(99, nullptr, nullptr, 0, nullptr), 0);
    ASSERT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(TRAN_SET_TIME(kThread), 103);
    EXPECT_EQ(TRAN_CHECK_SQL_TIME(kThread, 0), 103);
    EXPECT_EQ(TRAN_SET_FETCH_INFO(kThread, 1, 1, 1), 103);
  });
}

}  // namespace
}  // namespace varn::test
