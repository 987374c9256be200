// The agent from within: record validation against its whole table of cases, and states that no
// exported call leads to.
#include <cstdlib>

#include "core/gvar.h"
#include "core/validate.h"
#include "records/traced.h"

namespace varn::test {
namespace {

// ---- Validation ----

struct Rule {
  char type;
  std::uint8_t flag;        // in the log flags and in a service's trace flags
  bool is_filtered;         // by service
  bool needs_open_service;  // started and not ended
  int rc_without_bit;       // when the service lacks the bit
  const char* snapshots;    // states that admit it although its flag is off
};
constexpr Rule kRules[] = {
    {'1', 0x01, true, false, 121, "123"}, {'2', 0x01, true, false, 121, "2"},
    {'9', 0x02, true, true, 121, "2"},    {'E', 0x02, true, true, 121, "2"},
    {'B', 0x08, true, true, 0, "0123"},   {'C', 0x10, true, true, 121, "2"},
    {'I', 0x20, true, false, 121, "2"},   {'Q', 0x80, true, true, 121, "2"},
    {'V', 0x04, true, false, 121, "3"},   {'X', 0x40, false, false, 0, "2"},
};

struct Situation {
  int filtering = 0;
  bool is_listed = false, has_bit = false, is_on = false;
  int snapshot = 0, depth = 1, log_bit = 1;
};

struct Limits {
  int depth;
  std::int64_t call, dbio, sql;
  bool operator==(const Limits&) const = default;
};
constexpr Limits kOfEntry = {3, 30, 31, 32}, kOfService = {7, 70, 71, 72},
                 kDefaults = {11, 110, 111, 112}, kOfSnapshot = {50, 0, 0, 0};

struct Outcome {
  int rc;
  Limits limits = kOfEntry;
  bool counters_reset = false;
  int snapshot;
  int dbio_rec_off;
  bool keeps_service;
  bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Outcome& o) {
  return out << "rc " << o.rc << ", depth " << o.limits.depth << ", limits " << o.limits.call << ' '
             << o.limits.dbio << ' ' << o.limits.sql << (o.counters_reset ? ", reset" : "")
             << ", snapshot " << o.snapshot << ", rec_off " << o.dbio_rec_off
             << (o.keeps_service ? ", service kept" : "");
}

Outcome expected_of(const Rule& rule, const Situation& s) {
  const bool asks_service = rule.is_filtered && s.filtering != 0;
  const bool by_service = asks_service && s.is_listed;
  const bool in_snapshot = std::strchr(rule.snapshots, '0' + s.snapshot) != nullptr;
  int rc = 0;
  if (rule.needs_open_service && s.log_bit != 1 && s.log_bit != 2)
    rc = 112;
  else if (by_service)
    rc = s.has_bit ? 0 : rule.rc_without_bit;
  else if (asks_service && s.filtering == 2)
    rc = 121;
  else if (!s.is_on && !in_snapshot)
    rc = 100;

  Outcome o{.rc = rc, .snapshot = s.snapshot, .dbio_rec_off = 'n', .keeps_service = s.is_listed};
  const bool passes_outermost = rc == 0 && s.depth == 1;
  switch (rule.type) {
    case '1':
      if (s.depth == 1) o.keeps_service = by_service;
      if (passes_outermost) o.limits = by_service ? kOfService : kDefaults;
      o.counters_reset = passes_outermost;
      break;
    case '2':
      if (passes_outermost && !by_service) {
        o.limits.depth = 0;
        o.keeps_service = false;
        if (s.snapshot == 2) o.snapshot = 3;
      }
      break;
    case 'B':
      if (rc == 112) break;
      o.dbio_rec_off = 0;
      if (by_service && !s.has_bit) o.dbio_rec_off = 'y';
      if (rc == 0 && !by_service && !s.is_on && s.snapshot != 2) o.dbio_rec_off = 'd';
      break;
  }
  return o;
}

class Validation : public testing::Test {
 protected:
  Validation() {
    gvar.que_info = &collector.que_info();
    gvar.svc_hash_tbl = &collector.svc_tbl();
    gvar.que_info->call_trc_depth = kDefaults.depth;
    gvar.que_info->call_trc_limit = kDefaults.call;
    gvar.que_info->dbio_trc_limit = kDefaults.dbio;
    gvar.que_info->sql_trc_limit = kDefaults.sql;
    listed = &collector.add_service(
        "LISTED", {0, kOfService.depth, kOfService.call, kOfService.dbio, kOfService.sql});
    prepare({}, 0);
  }
  ~Validation() override {
    gvar.que_info = nullptr;
    gvar.svc_hash_tbl = nullptr;
  }

  void prepare(const Situation& s, std::uint8_t flag) {
    gvar.que_info->svc_filtering = static_cast<std::uint8_t>(s.filtering);
    gvar.que_info->log_flag_set = static_cast<std::uint8_t>(s.is_on ? flag : ~flag);
    listed->trace_flags = static_cast<std::uint8_t>(s.has_bit ? flag : ~flag);
    std::memset(&entry, 0, offsetof(PTRC_HASH_ENT, call_stack));
    entry.ent_pid = var.pid = 100;
    entry.ent_tid = var.tid = 200;
    entry.snapshot_state = static_cast<std::uint8_t>(s.snapshot);
    entry.trc_depth = kOfEntry.depth;
    entry.call_limit_us = kOfEntry.call;
    entry.dbio_limit_us = kOfEntry.dbio;
    entry.sql_limit_us = kOfEntry.sql;
    entry.dbio_rec_off = 'n';
    entry.call_top = entry.call_last_top = 1;
    entry.call_nest = entry.call_cnt = 1;
    entry.err_rc_seen = entry.svc_timeout_seen = 1;
    entry.dbio_elapsed_total = 1;
    entry.sql_cnt = 0;
    var.ptrc = &entry;
    var.cxt_init_flag = 0;
    var.svc = s.is_listed ? listed : nullptr;
    var.svc_depth = static_cast<std::int8_t>(s.depth);
    var.log_bit = s.log_bit;
    std::memset(var.rec.view, '?', sizeof var.rec.view);
  }

  int validate(char type, const char* svc_id = "LISTED", Text snap_cd = {},
               ApiType api = kStartApi) {
    return trace_validate(var, type, api, var.rec, {svc_id, -1}, snap_cd);
  }

  Limits limits() const {
    return {entry.trc_depth, entry.call_limit_us, entry.dbio_limit_us, entry.sql_limit_us};
  }
  int counters() const {
    return entry.call_top + entry.call_last_top + entry.call_nest + entry.call_cnt +
           entry.err_rc_seen + entry.svc_timeout_seen + static_cast<int>(entry.dbio_elapsed_total);
  }

  FakeCollector collector{{.queues = 1}};
  SVC_HASH_ENT* listed;
  PTRC_HASH_ENT& entry = collector.ptrc_tbl().entries[0];
  MTR_CXT_VAR var{};
};

template <typename Visit>
void for_each_situation(Visit visit) {
  for (const int filtering : {0, 1, 2})
    for (const bool is_listed : {false, true})
      for (const bool has_bit : {false, true})
        for (const bool is_on : {false, true})
          for (const int snapshot : {0, 1, 2, 3})
            for (const int depth : {1, 2})
              for (const int log_bit : {0, 1, 2, 3})
                visit({filtering, is_listed, has_bit, is_on, snapshot, depth, log_bit});
}

TEST_F(Validation, EveryKindInEverySituationPassesOrIsRefusedAsItsRuleSays) {
  for (const Rule& rule : kRules) {
    for_each_situation([&](const Situation& s) {
      prepare(s, rule.flag);
      const char* const svc_id = s.is_listed ? "LISTED" : "UNLISTED";
      const int rc = validate(rule.type, svc_id);
      EXPECT_TRUE(counters() == 7 || counters() == 0) << "counters reset in part";
      const Outcome actual = {rc,
                              limits(),
                              counters() == 0,
                              entry.snapshot_state,
                              entry.dbio_rec_off,
                              var.svc != nullptr};
      ASSERT_EQ(actual, expected_of(rule, s))
          << "type " << rule.type << ", filtering " << s.filtering << ", listed " << s.is_listed
          << ", bit " << s.has_bit << ", on " << s.is_on << ", snapshot " << s.snapshot
          << ", depth " << s.depth << ", log_bit " << s.log_bit;
      EXPECT_EQ(std::string(var.rec.view + 56, 17),
                rc == 112 ? std::string(17, '?') : padded(svc_id, 17));
    });
  }
}

TEST_F(Validation, ASnapshotIsArmedOnlyOnceAndOnlyByAnOutermostStart) {
  for (const int snapshot : {1, 2, 3}) {
    for (const int depth : {1, 2}) {
      prepare({.is_on = true, .snapshot = snapshot, .depth = depth}, 0x01);
      std::memcpy(entry.snapshot_tx_cd, "ICT", 4);
      EXPECT_EQ(validate('1', "SVC", {"ICT", 3}), 0);
      const bool begins = snapshot == 1 && depth == 1;
      EXPECT_EQ(entry.snapshot_state, begins ? 2 : snapshot);
      EXPECT_EQ(limits(), begins ? kOfSnapshot : depth == 1 ? kDefaults : kOfEntry);
    }
  }
}

TEST_F(Validation, CallsThatOpenNoLevelReportErrorsWithoutOne) {
  for (int api = kStartApi; api <= kWebEndApi; ++api) {
    const bool is_flat = api == 110 || api == 111 || api == 112 || api == 118 || api == 119;
    for (const char type : {'9', 'E', 'C'}) {
      prepare({.is_on = true, .depth = 0, .log_bit = 0}, 0xFF);
      EXPECT_EQ(validate(type, "SVC", {}, static_cast<ApiType>(api)),
                is_flat && type != 'C' ? 0 : 112)
          << type << ' ' << api;
    }
  }
}

TEST_F(Validation, APendingSqlCountBeyondFiveRefusesTheStatement) {
  for (const auto& [count, rc] : {std::pair{5, 0}, {6, 113}, {INT32_MAX, 113}, {INT32_MIN, 0}}) {
    prepare({.is_on = true}, 0x80);
    entry.sql_cnt = count;
    EXPECT_EQ(validate('Q'), rc) << count;
  }
}

TEST_F(Validation, AnEntryThatIsMissingOrAnotherThreadsIsRefusedForEveryKind) {
  for (int byte = 0; byte < 256; ++byte) {
    const char type = static_cast<char>(byte);
    const bool is_known = byte != 0 && std::strchr("129BCEIQVX", byte) != nullptr;
    const auto rc_with = [&](auto change) {
      prepare({.is_on = true}, 0xFF);
      change();
      return validate(type);
    };
    EXPECT_EQ(rc_with([] {}), is_known ? 0 : 102) << byte;
    EXPECT_EQ(rc_with([&] { var.cxt_init_flag = 116; }), 116) << byte;
    EXPECT_EQ(rc_with([&] { entry.ent_pid = 101; }), 118) << byte;
    EXPECT_EQ(rc_with([&] { entry.ent_tid = 201; }), 118) << byte;
  }
}

TEST_F(Validation, LimitsBeyondTheEntrysRangeAreCutToIt) {
  listed->call_trc_depth = 200;
  listed->call_trc_limit = UINT64_MAX;
  gvar.que_info->call_trc_depth = UINT32_MAX;
  gvar.que_info->sql_trc_limit = UINT64_MAX;
  prepare({.filtering = 1, .has_bit = true}, 0x01);
  EXPECT_EQ(validate('1'), 0);
  EXPECT_EQ(limits(), (Limits{127, INT64_MAX, 71, 72}));
  EXPECT_EQ(validate('1', "UNLISTED"), 100);
  prepare({.is_on = true}, 0x01);
  EXPECT_EQ(validate('1'), 0);
  EXPECT_EQ(limits(), (Limits{127, 110, 111, INT64_MAX}));
}

// ---- States that no call leads to ----

class Inside : public RecordTest {
 protected:
  static MTR_CXT_VAR& context() {
    for (MTR_CXT_VAR& var : gvar.mtr_cxt_var[52])
      if (var.in_use == 1 && var.tid == kThread) return var;
    throw std::runtime_error("the thread has no context");
  }
};

TEST_F(Inside, ADepthBelowZeroRefusesTheStartAndOneBeyondTheStackWalksBack) {
  const auto records = trace([&] {
    ASSERT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
    context().svc_depth = -1;
    EXPECT_EQ(start({.gid = "G1", .svc_id = "S1"}), TRAN_RC_DEPTH);
    EXPECT_EQ(context().svc_depth, -1);
    EXPECT_EQ(end({}), TRAN_RC_DEPTH);
    EXPECT_EQ(error({}), TRAN_RC_DEPTH);
    context().svc_depth = 12;
    EXPECT_EQ(error({}), TRAN_RC_DEPTH);
    EXPECT_EQ(info({}), TRAN_RC_DEPTH);
    EXPECT_EQ(errinfo({}), TRAN_RC_DEPTH);
    EXPECT_EQ(end({.gid = {"G2-and-more", 2}, .svc_id = "S2"}), TRAN_RC_DEPTH);
    EXPECT_EQ(end({}), TRAN_RC_DEPTH);
    EXPECT_EQ(context().svc_depth, 10);
    EXPECT_EQ(entry().entry_depth, 1) << "the shared copy keeps its value";
    EXPECT_EQ(end({}), 0);
    EXPECT_EQ(entry().entry_depth, 9);
  });
  EXPECT_EQ(types_of(records), "12");
  const std::string owner = "|-|" + std::to_string(pid()) + "|-|4660|, SVC (";
  for (const std::string& line :
       {"<!> START service_depth minus error!(val:-1 (MAX:10)) GID-PID-TID|G1" + owner + "S1).",
        "<!> END service_depth max error!(val:(12)->(11) (MAX:10)) GID-PID-TID|G2" + owner + "S2).",
        "<!> END service_depth max error!(val:(11)->(10) (MAX:10)) GID-PID-TID|null" + owner +
            "null)."})
    EXPECT_EQ(collector.count_logged(line), 1) << line;
}

TEST_F(Inside, TheStatisticsMessageAveragesTheServicesCalls) {
  struct {
    const char* name;
    SvcCallStat stat;
    const char* text;
  } const cases[] = {
      {"three business calls of 2, 4 and 6 ms",
       {3, 0, 12'000, 0, 6, 5, 0, 2, 0},
       "Max Depth 2 ] [ BIZCALL(Method) 3건 (전체 Avg/Max   4.00/6 ms, 개별 Max 5 ms) ], "
       "[ DBIO 0건 (Avg/Max   0.00/0 ms)"},
      {"halves, rounded to even",
       {1, 1, 125, 375, 1, 1, 1, 0, 0},
       "Max Depth 0 ] [ BIZCALL(Method) 1건 (전체 Avg/Max   0.12/1 ms, 개별 Max 1 ms) ], "
       "[ DBIO 1건 (Avg/Max   0.38/1 ms)"},
      {"averages of other widths",
       {3, 2, 1'000, 2'469'136, 1, 1, 1'234, 0, 0},
       "Max Depth 0 ] [ BIZCALL(Method) 3건 (전체 Avg/Max   0.33/1 ms, 개별 Max 1 ms) ], "
       "[ DBIO 2건 (Avg/Max 1234.57/1234 ms)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
      context().svc_call_stat = c.stat;
      entry().call_cnt = 5;
      ASSERT_EQ(end({}), 0);
      ASSERT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
      EXPECT_EQ(context().svc_call_stat.biz_cnt, 0U);
      EXPECT_EQ(context().svc_call_stat.biz_elapsed_sum, 0);
    });
    ASSERT_EQ(types_of(records), "1I21");
    EXPECT_EQ(body_field(records[1], "message"),
              euc_kr("처리 모듈(함수)통계 [ 총 호출 5 건 ] [ " + std::string(c.text) +
                     " fetch 0 rows (0.0 ms), (DBConn /) ]"));
  }
}

}  // namespace
}  // namespace varn::test
