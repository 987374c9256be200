// The agent from within: record validation in every situation, and states that no exported call
// leads to.
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
  const char* snapshots;    // states that admit it although its flag is off
};
constexpr Rule kRules[] = {
    {'1', 0x01, true, false, "123"}, {'2', 0x01, true, false, "2"}, {'9', 0x02, true, true, "2"},
    {'E', 0x02, true, true, "2"},    {'B', 0x08, true, true, "2"},  {'C', 0x10, true, true, "2"},
    {'I', 0x20, true, false, "2"},   {'Q', 0x80, true, true, "2"},  {'V', 0x04, true, false, "3"},
    {'X', 0x40, false, false, "2"},
};

struct Situation {
  int filtering = 0;
  bool is_listed = false, has_bit = false, is_on = false;
  int snapshot = 0, depth = 1, log_bit = 1;
};

int expected_code(const Rule& rule, const Situation& s) {
  if (rule.needs_open_service && (s.log_bit == 0 || s.log_bit == 3)) return 112;
  if (rule.is_filtered && s.filtering != 0) {
    if (s.is_listed) return s.has_bit ? 0 : 121;
    if (s.filtering == 2) return 121;
  }
  const bool in_snapshot = std::strchr(rule.snapshots, '0' + s.snapshot) != nullptr;
  return s.is_on || in_snapshot ? 0 : 100;
}

// Of all their combinations.
constexpr int kSituations = 3 * 2 * 2 * 2 * 4 * 2 * 4;
Situation situation(int n) {
  const auto pick = [&n](int choices) { return std::exchange(n, n / choices) % choices; };
  return {pick(3), pick(2) == 1, pick(2) == 1, pick(2) == 1, pick(4), 1 + pick(2), pick(4)};
}

class Validation : public testing::Test {
 protected:
  Validation() {
    gvar.que_info = &collector.que_info();
    gvar.svc_hash_tbl = &collector.svc_tbl();
    var.ptrc = &entry;
  }
  ~Validation() override {
    gvar.que_info = nullptr;
    gvar.svc_hash_tbl = nullptr;
  }

  void prepare(char type, std::uint8_t flag, const Situation& s) {
    gvar.que_info->svc_filtering = static_cast<std::uint8_t>(s.filtering);
    gvar.que_info->log_flag_set = static_cast<std::uint8_t>(s.is_on ? flag : ~flag);
    listed.trace_flags = static_cast<std::uint8_t>(s.has_bit ? flag : ~flag);
    std::memset(static_cast<void*>(&entry), 1, kEntryHead);
    std::memcpy(entry.snapshot_tx_cd, "ICT", 4);
    entry.snapshot_state = static_cast<std::uint8_t>(s.snapshot);
    entry.sql_cnt = 5;
    var.pid = entry.ent_pid;
    var.tid = entry.ent_tid;
    // An outermost start looks its service up.
    var.svc = s.is_listed != (type == '1' && s.depth == 1) ? &listed : nullptr;
    var.svc_depth = static_cast<std::int8_t>(s.depth);
    var.log_bit = s.log_bit;
    svc_id = s.is_listed ? Text{"LISTED-NOT", 6} : Text{"UNLISTED", -1};
  }
  int validate(char type, ApiType api = kStartApi) {
    return trace_validate(var, type, api, var.rec, svc_id, {"ICT", 3});
  }
  std::string entry_head() const { return {reinterpret_cast<const char*>(&entry), kEntryHead}; }

  static constexpr std::size_t kEntryHead = offsetof(PTRC_HASH_ENT, call_stack);
  FakeCollector collector{{.queues = 1}};
  SVC_HASH_ENT& listed = collector.add_service("LISTED", {0xFF, 200, UINT64_MAX, 71, 72});
  PTRC_HASH_ENT& entry = collector.ptrc_tbl().entries[0];
  MTR_CXT_VAR var{};
  Text svc_id;
};

TEST_F(Validation, EveryKindInEverySituationPassesOrIsRefusedAsItsRuleSays) {
  for (const Rule& rule : kRules) {
    for (int n = 0; n < kSituations; ++n) {
      const Situation s = situation(n);
      prepare(rule.type, rule.flag, s);
      std::string head = entry_head();
      int expected = expected_code(rule, s);
      if (rule.type == 'B' && expected != 112) {
        // A database call goes on being timed; the entry says why it is not recorded.
        const bool is_refused = expected == 121 && !s.is_listed;
        head[offsetof(PTRC_HASH_ENT, dbio_rec_off)] = is_refused || expected == 0 ? '\0'
                                                      : expected == 121           ? 'y'
                                                                                  : 'd';
        expected = is_refused ? 121 : 0;
      }
      const auto text = testing::Message()
                        << rule.type << ", in the members' order " << s.filtering << s.is_listed
                        << s.has_bit << s.is_on << s.snapshot << s.depth << s.log_bit;
      ASSERT_EQ(validate(rule.type), expected) << text;
      const bool is_outermost_start = rule.type == '1' && s.depth == 1;
      if (expected == 0 && s.depth == 1 && (is_outermost_start || rule.type == '2')) continue;
      ASSERT_TRUE(entry_head() == head) << text;
      ASSERT_EQ(var.svc != nullptr, s.is_listed && (!is_outermost_start || s.filtering != 0))
          << text;
    }
  }
}

TEST_F(Validation, AnOutermostStartSetsTheEntrysLimitsAndItsEndClearsThem) {
  gvar.que_info->call_trc_depth = UINT32_MAX;
  gvar.que_info->call_trc_limit = 110;
  gvar.que_info->dbio_trc_limit = 111;
  gvar.que_info->sql_trc_limit = UINT64_MAX;
  using Limits = std::array<std::int64_t, 4>;
  const Limits of_service = {127, INT64_MAX, 71, 72}, defaults = {127, 110, 111, INT64_MAX};
  struct {
    Situation situation;
    Limits limits;
    int started, ended, depth_at_end;  // the snapshot's states
  } const cases[] = {
      {{1, true, true, false, 1}, of_service, 1, 1, 1},
      {{1, true, true, false, 2}, of_service, 2, 2, 1},
      {{1, false, false, true, 0}, defaults, 0, 0, 0},
      {{0, true, false, true, 1}, {50, 0, 0, 0}, 2, 1, 0},
      {{0, true, false, true, 2}, defaults, 2, 3, 0},
      {{0, true, false, true, 3}, defaults, 3, 3, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    prepare('1', 0x01, c.situation);
    EXPECT_EQ(validate('1'), 0);
    const Limits limits = {entry.trc_depth, entry.call_limit_us, entry.dbio_limit_us,
                           entry.sql_limit_us};
    EXPECT_EQ(limits, c.limits);
    EXPECT_EQ(entry.snapshot_state, c.started);
    EXPECT_EQ(entry.call_top | entry.call_last_top | entry.call_cnt | entry.call_nest |
                  entry.dbio_elapsed_total | entry.err_rc_seen | entry.svc_timeout_seen,
              0);
    EXPECT_EQ(var.svc, limits == of_service ? &listed : nullptr);
    prepare('2', 0x01, c.situation);
    EXPECT_EQ(validate('2'), 0);
    EXPECT_EQ(entry.snapshot_state, c.ended);
    EXPECT_EQ(entry.trc_depth, c.depth_at_end);
    EXPECT_EQ(var.svc, limits == of_service ? &listed : nullptr);
  }
}

TEST_F(Validation, CallsThatOpenNoLevelReportErrorsWithoutOne) {
  prepare('9', 0xFF, {.is_on = true, .log_bit = 0});
  for (int api = kStartApi; api <= kWebEndApi; ++api) {
    const bool is_flat = api == 110 || api == 111 || api == 112 || api == 118 || api == 119;
    for (const char type : {'9', 'E', 'C'})
      EXPECT_EQ(validate(type, static_cast<ApiType>(api)), is_flat && type != 'C' ? 0 : 112)
          << type << ' ' << api;
  }
}

TEST_F(Validation, AnEntryThatIsMissingOrAnotherThreadsIsRefusedForEveryKind) {
  for (int byte = 0; byte < 256; ++byte) {
    const bool is_known = byte != 0 && std::strchr("129BCEIQVX", byte) != nullptr;
    const auto code_with = [&](int cxt_init_flag, int other_pid, std::uint64_t other_tid) {
      prepare('1', 0xFF, {.is_on = true});
      var.cxt_init_flag = cxt_init_flag;
      var.pid += other_pid;
      var.tid += other_tid;
      return validate(static_cast<char>(byte));
    };
    EXPECT_EQ(code_with(0, 0, 0), is_known ? 0 : 102) << byte;
    EXPECT_EQ(code_with(116, 0, 0), 116) << byte;
    EXPECT_EQ(code_with(0, 1, 0), 118) << byte;
    EXPECT_EQ(code_with(0, 0, 1), 118) << byte;
  }
}

// ---- States that no call leads to ----

using Inside = RecordTest;

MTR_CXT_VAR& context() {
  for (MTR_CXT_VAR& var : gvar.mtr_cxt_var[52])
    if (var.in_use == 1 && var.tid == kThread) return var;
  throw std::runtime_error("the thread has no context");
}

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

}  // namespace
}  // namespace varn::test
