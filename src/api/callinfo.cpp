// TRAN_CALLINFO_S and TRAN_CALLINFO_F: business and database calls inside a service, on the call
// stack in the thread's shared entry.
#include <algorithm>
#include <cstring>

#include "api/edge.h"
#include "core/call_stack.h"
#include "core/filter.h"
#include "core/gvar.h"
#include "core/notice.h"
#include "core/record.h"
#include "core/sql.h"
#include "util/clock.h"
#include "util/log_printf.h"
#include "util/message.h"

namespace varn {
namespace {

constexpr std::int64_t kOverCallLimitUs = 200'000;

// By the characters at the configured place of the function's name.
[[gnu::always_inline]] inline char type_of_call(Text func_nm) {
  constexpr std::size_t kCompared = 7;
  if (gvar.dbio_func_sign_no < 0 || !func_nm.given()) return kBizCall;
  const auto from = static_cast<std::size_t>(gvar.dbio_func_sign_no);
  const std::string_view name = func_nm.clipped(from + kCompared);
  if (name.size() < from) return kBizCall;
  for (std::size_t i = 0; i < kCompared; ++i) {
    const char wanted = gvar.dbio_func_signature[i];
    if (wanted == '\0') continue;  // matches anything, the name's end too
    if (from + i >= name.size() || name[from + i] != wanted) return kBizCall;
  }
  return kDbioCall;
}

std::uint8_t log_flag_of_call(char type) {
  return type == kDbioCall ? kKind<kDbioCall>.log_flag : kKind<kBizCall>.log_flag;
}

void add_to(std::int32_t& count, std::int32_t n) {
  // Another process may have left any number there.
  store(count, static_cast<std::int32_t>(static_cast<std::uint32_t>(load(count)) +
                                         static_cast<std::uint32_t>(n)));
}
void add_to(std::int64_t& sum, std::int64_t n) {
  store(sum, static_cast<std::int64_t>(static_cast<std::uint64_t>(load(sum)) +
                                       static_cast<std::uint64_t>(n)));
}
std::int64_t difference(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

// A call's text, which ends at the zero byte behind it.
template <std::size_t kSize>
void put_call_text(char (&place)[kSize], std::size_t width, Text text) {
  const std::size_t n = text.size(width);
  move_text(place, text.ptr, n, width);
  place[n] = '\0';
}

template <std::size_t kSize>
std::string_view call_text(const char (&place)[kSize]) {
  return printable(Text::of(place), kSize);
}

std::string_view text_or_empty(Text text, std::size_t most = kCallBody.back().width) {
  return text.given() ? printable(text, most) : std::string_view();
}

std::string_view function_name(Text func_nm) {
  return text_or_empty(func_nm, sizeof CallEntry::func_nm - 1);
}

// ---- Start ----

struct StartArgs {
  Text call_at, call_src, func_nm;
  int line = 0;
  int status = 0;
};

[[gnu::cold]] int refuse_negative_nesting(std::string_view func_nm) {
  VARN_LOG_LIMITED("<!> call_trc_depth error, function(%.*s) call.",
                   static_cast<int>(func_nm.size()), func_nm.data());
  return TRAN_RC_CALL_DEPTH;
}

[[gnu::cold]] int refuse_nested_dbio(const PTRC_HASH_ENT& entry, const CallEntry& top,
                                     std::string_view func_nm) {
  const std::string_view top_nm = call_text(top.func_nm);
  VARN_LOG_LIMITED("<!> log_type error, DBIO_TYPE {%d-%.*s} can't call in DBIO_TYPE {%d-%.*s}.",
                   load(entry.call_cnt), static_cast<int>(func_nm.size()), func_nm.data(),
                   load(top.seq), static_cast<int>(top_nm.size()), top_nm.data());
  return TRAN_RC_DBIO_IN_DBIO;
}

// Counts a start, also one that is refused afterwards, and clears what the last call left.
void count_start(MTR_CXT_VAR& var) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  add_to(entry.call_nest, 1);
  add_to(entry.call_cnt, 1);
  var.svc_call_stat.max_call_nest =
      std::max(var.svc_call_stat.max_call_nest, load(entry.call_nest));
  store(entry.sql_cnt, 0);
  store(entry.sqlcode, kNoSqlcode);
  store(entry.cur_fetch_rows, 0);
  store(entry.cur_fetch_time_us, 0);
  store(entry.sql_line, 0);
}

void clear_sums(CallEntry& call) {
  store(call.lvl_elapsed_us, std::int64_t{0});
  store(call.lvl_dbio_us, std::int64_t{0});
}

void push_call(MTR_CXT_VAR& var, int call_top, char type, const StartArgs& args) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  CallEntry& call = entry.call_stack[call_top];
  put_call_text(call.func_nm, sizeof call.func_nm - 1, args.func_nm);
  put_call_text(call.call_at, sizeof call.call_at - 1, args.call_at);
  put_call_text(call.call_src, sizeof call.call_src - 2, args.call_src);
  store(call.line, args.line);
  store(call.type, type);
  store_time(call.start_tv, now(var.clock));
  store_time(call.end_tv, {});
  store(call.seq, load(entry.call_cnt));
  store(call.result.status, args.status);
  store(call.force_rec, 0);
  // A service that ended with calls open may have left its sums where this call's own are added up.
  if (call_top + 1 < kMaxCallDepth) clear_sums(entry.call_stack[call_top + 1]);
  store(entry.call_top, static_cast<std::int8_t>(call_top + 1));
}

template <char kType>
int start_call(MTR_CXT_VAR& var, const StartArgs& args) {
  constexpr bool kIsDbio = kType == kDbioCall;
  PTRC_HASH_ENT& entry = *var.ptrc;
  store(entry.in_dbio, std::uint8_t{kIsDbio});
  if (current_level(var) == nullptr) return TRAN_RC_DEPTH;
  if (const int rc = validate_call<kType>(var); rc != 0) return rc;

  count_start(var);
  const std::int32_t call_nest = load(entry.call_nest);
  if (call_nest < 0) return refuse_negative_nesting(function_name(args.func_nm));
  if (!kIsDbio && call_nest > load(entry.trc_depth)) return TRAN_RC_OK;  // not traced
  const int call_top = load(entry.call_top);
  if (call_top < 0 || call_top > kMaxCallDepth) return TRAN_RC_CALL_DEPTH;
  if (const CallEntry* const top = innermost_call(entry);
      kIsDbio && top != nullptr && load(top->type) == kDbioCall)
    return refuse_nested_dbio(entry, *top, function_name(args.func_nm));
  if (call_top == kMaxCallDepth) return TRAN_RC_CALL_DEPTH;
  push_call(var, call_top, kType, args);
  return TRAN_RC_OK;
}

// ---- End ----

// What only a recorded end needs of its caller's texts.
struct EndArgs {
  Pairs head;
  Text call_at, call_src, label;
  int line = 0;
};

// How an ending call stands to the calls that have ended before it.
enum class Place {
  kSibling,  // follows another at its level, and called nothing
  kFirst,    // the first at its level, and called nothing
  kParent,   // calls that it made have ended
};

Place place_of(int call_last_top, int call_top) {
  if (call_last_top == call_top) return Place::kSibling;
  return call_last_top < call_top ? Place::kFirst : Place::kParent;
}

// An ended call in numbers, taken before anything of it is cleared.
struct EndedCall {
  char type;
  const SvcLevel* service = nullptr;
  CallEntry* call = nullptr;
  CallEntry* children = nullptr;  // slot of the calls that it made; null past the stack's end
  int level = 0;                  // 1: the outermost
  Place place = Place::kFirst;
  std::int64_t elapsed = 0;
  std::int64_t children_elapsed = 0;
  std::int64_t children_dbio = 0;

  bool recorded = false;

  bool is_dbio() const { return type == kDbioCall; }
  bool is_leaf_dbio() const { return is_dbio() && place != Place::kParent; }
};

[[gnu::cold]] int refuse_end_without_start(Text func_nm) {
  const std::string_view name = function_name(func_nm);
  VARN_LOG_LIMITED("<!> depth error, function(%.*s) call does not match the start and end.",
                   static_cast<int>(name.size()), name.data());
  return TRAN_RC_CALL_DEPTH;
}

[[gnu::cold]] int refuse_end_below_zero(Text func_nm) {
  const std::string_view name = function_name(func_nm);
  VARN_LOG_LIMITED("<!> depth error, function(%.*s) call.", static_cast<int>(name.size()),
                   name.data());
  return TRAN_RC_CALL_DEPTH;
}

// The first failed call of a service has itself recorded, or with class 2 all calls around it too.
void classify_error(PTRC_HASH_ENT& entry, int call_top, int rc) {
  CallEntry& call = entry.call_stack[call_top - 1];
  tran_call_rc result = {load(call.result.status), rc};
  if (rc >= 0 && result.status != -1) [[likely]] {
    store(call.result.rc, rc);
    return;
  }
  const int failed = error_class(result);
  store(call.result.rc, result.rc);
  if (failed == 0 || load(entry.err_rc_seen) != 0) return;
  const int first = failed == 2 ? 0 : call_top - 1;
  for (int i = first; i < call_top; ++i) store(entry.call_stack[i].force_rec, 1);
  store(entry.err_rc_seen, std::uint8_t{1});
}

// The sums of the call's level, but for a parent's, which are added once its children's are taken.
void add_up_leaf(PTRC_HASH_ENT& entry, const EndedCall& ended) {
  CallEntry& call = *ended.call;
  if (ended.place == Place::kFirst) clear_sums(call);
  add_to(call.lvl_elapsed_us, ended.elapsed);
  if (!ended.is_dbio()) return;
  add_to(call.lvl_dbio_us, ended.elapsed);
  add_to(entry.dbio_elapsed_total, ended.elapsed);
}

// Database time rises level by level to every call around it.
void add_up_parent(const EndedCall& ended) {
  add_to(ended.call->lvl_elapsed_us, ended.elapsed);
  if (ended.children == nullptr) return;
  add_to(ended.call->lvl_dbio_us, ended.children_dbio);
  clear_sums(*ended.children);
}

[[gnu::cold]] void report_over_calling(MTR_CXT_VAR& var, const SvcLevel& service) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  const std::string_view main = printable(Text::of(entry.main_svc_id), sizeof entry.main_svc_id);
  Message<kEventBody.back().width> message;
  message << "서비스(" << main;
  for (std::size_t n = main.size(); n < sizeof entry.main_svc_id; ++n) message << ' ';
  message << ") 수행 도중, BIZCALL(Method) 또는 DBIO함수 과다 호출(기준 "
          << gvar.infinite_loop_base_cnt << "건초과) 증상이 발견되었습니다.";
  const auto in_header = [&](const Field& field) {
    return Text(var.rec.view + field.at, static_cast<std::int32_t>(field.width));
  };
  Event event;
  event.hdr_cd = in_header(kHdrCd);
  event.hdr_flag = in_header(kHdrFlag);
  event.gid = in_header(kGid);
  event.svc_id = Text::of(service.svc_id);
  event.event_cd = {"1300", 4};
  event.recv_svc_cd = {entry.main_recv_svc_cd, -1};
  event.chnl_class = {&entry.chnl_class, 1};
  event.message = message.text();
  emit_event(var, event);
}

// From here on only slow calls of this service are recorded.
void raise_limits(PTRC_HASH_ENT& entry) {
  for (std::int64_t* const limit :
       {&entry.call_limit_us, &entry.dbio_limit_us, &entry.sql_limit_us})
    store(*limit, std::max(load(*limit), kOverCallLimitUs));
}

void calc_call_stat(MTR_CXT_VAR& var, const EndedCall& ended) {
  SvcCallStat& stat = var.svc_call_stat;
  if (ended.is_dbio()) {
    add_to(stat.dbio_elapsed_sum, ended.elapsed);
    ++stat.dbio_cnt;
    stat.dbio_max = std::max(stat.dbio_max, ended.elapsed);
  } else {
    const std::int64_t own = difference(ended.elapsed, ended.children_elapsed);
    add_to(stat.biz_elapsed_sum, ended.elapsed);
    ++stat.biz_cnt;
    stat.biz_max = std::max(stat.biz_max, ended.elapsed);
    stat.biz_self_max = std::max(stat.biz_self_max, own);
  }
  const std::int64_t calls = std::int64_t{stat.biz_cnt} + stat.dbio_cnt;
  if (calls <= gvar.infinite_loop_base_cnt || stat.over_call_flag != 0) return;
  report_over_calling(var, *ended.service);
  raise_limits(*var.ptrc);
  stat.over_call_flag = 1;
}

bool is_recorded(const PTRC_HASH_ENT& entry, const EndedCall& ended) {
  const std::int64_t limit = load(ended.is_leaf_dbio() ? entry.dbio_limit_us : entry.call_limit_us);
  if (ended.elapsed < limit && load(ended.call->force_rec) == 0) return false;
  store(ended.call->force_rec, 0);
  return true;
}

// Holds all pieces at their longest, to be cut to the record's width at the end: three texts of the
// caller, those of the entry, and the numbers with what stands between them.
constexpr std::size_t kLongestBody = std::size_t{3} * kCallBody.back().width +
                                     sizeof(CallEntry::func_nm) + sizeof(CallEntry::call_src) +
                                     sizeof(PTRC_HASH_ENT::db_user) +
                                     sizeof(PTRC_HASH_ENT::db_sid) + std::size_t{32} * 24;
using Body = Message<kLongestBody, true>;

void put_moment(Body& body, const StampCache& stamp, const TimeVal& tv) {
  if (const std::string_view digits = cached_digits(stamp, tv.sec); !digits.empty()) [[likely]]
    body << std::string_view(digits.data(), sizeof stamp.seconds);
  else
    body << tv.sec;
  (body << '.').micros(tv.usec) << ',';
}

// "LEVEL,DEPTH,T1,T2,T3,T4,START,END,": total, own, business and database time.
void put_times(Body& body, const PTRC_HASH_ENT& entry, const StampCache& stamp,
               const EndedCall& ended) {
  body << ended.level << ',' << std::int32_t{load(entry.trc_depth)} << ',';
  body.seconds(ended.elapsed) << ',';
  if (ended.place == Place::kParent) {
    body.seconds(difference(ended.elapsed, ended.children_elapsed)) << ',';
    body.seconds(difference(ended.children_elapsed, ended.children_dbio)) << ',';
    body.seconds(ended.children_dbio) << ',';
  } else {
    body.seconds(ended.is_dbio() ? 0 : ended.elapsed) << ",0.000000,0.000000,";
  }
  put_moment(body, stamp, load_time(ended.call->start_tv));
  put_moment(body, stamp, load_time(ended.call->end_tv));
}

// "[LABEL][FUNCTION at PLACE (SOURCE::LINE){NUMBER}]"
void put_function(Body& body, const EndedCall& ended, const EndArgs& args) {
  const std::string_view default_label = ended.is_leaf_dbio() ? "" : "METHOD";
  const CallEntry& call = *ended.call;
  body << '[' << (args.label.given() ? text_or_empty(args.label) : default_label) << "]["
       << call_text(call.func_nm) << " at " << text_or_empty(args.call_at) << " ("
       << (args.call_src.given() ? text_or_empty(args.call_src) : call_text(call.call_src)) << "::";
  body.padded(args.line, 5) << "){" << load(call.seq) << "}]";
}

void put_sql_outcome(Body& body, const PTRC_HASH_ENT& entry, const EndedCall& ended) {
  const std::int32_t fetch_us = load(entry.cur_fetch_time_us);
  body << "#SQLCODE " << static_cast<std::int32_t>(load(entry.sqlcode)) << ", #RC "
       << load(ended.call->result.rc) << " (line " << load(entry.sql_line) << ") fetch "
       << load(entry.cur_fetch_rows) << " rows" << (ended.place == Place::kFirst ? " (" : "(")
       << fetch_us / 1000 << '.' << fetch_us % 1000 << " ms) DB " << call_text(entry.db_user) << '/'
       << call_text(entry.db_sid);
}

int send_call(MTR_CXT_VAR& var, const EndedCall& ended, const EndArgs& args) {
  const PTRC_HASH_ENT& entry = *var.ptrc;
  const TimeVal end = load_time(ended.call->end_tv);
  const Stamp stamp = local_stamp(var.stamp, end.sec, end.usec);
  Body body;
  put_times(body, entry, var.stamp, ended);
  put_function(body, ended, args);
  if (ended.is_leaf_dbio())
    put_sql_outcome(body, entry, ended);
  else
    body << "#RC " << load(ended.call->result.rc);
  const Text text = body.text();
  put_fields<kCallBody>(var.rec.view, {&text, 1});
  const RecordKind& kind = ended.is_dbio() ? kKind<kDbioCall> : kKind<kBizCall>;
  put_field<kSvcId>(var.rec.view, Text::of(ended.service->svc_id));
  put_header(var, var.rec, kind, args.head, Text::of(ended.service->gid), stamp);
  close_record(var, kind);
  return tran_logb(var, var.rec);
}

// A suppressed database call: 'y' by service filtering, 'd' by the record kinds switched on.
int suppressed_code(std::int8_t dbio_rec_off) {
  return dbio_rec_off == 'y' ? TRAN_RC_FILTERED : TRAN_RC_SWITCHED_OFF;
}

void flush_pending_sql(MTR_CXT_VAR& var, const EndedCall& ended) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  if (load(entry.sql_cnt) > 0 && load(ended.call->type) == kDbioCall &&
      admit(kKind<'Q'>.log_flag) == TRAN_RC_OK)
    flush_statements(var);
  store(entry.sql_cnt, 0);
}

// Settles what the call's kind and time mean for its SQL and the calls around it: why it is not
// recorded, or 0.
int settle_call(MTR_CXT_VAR& var, EndedCall& ended) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  const std::int8_t rec_off = ended.is_dbio() ? load(entry.dbio_rec_off) : std::int8_t{0};
  if (rec_off != 0 && ended.is_leaf_dbio()) return suppressed_code(rec_off);

  const bool slow_or_failed = is_recorded(entry, ended);
  flush_pending_sql(var, ended);
  if (ended.place == Place::kParent) add_up_parent(ended);
  if (rec_off != 0) return suppressed_code(rec_off);
  if (!slow_or_failed) return ended.is_dbio() ? TRAN_RC_DBIO_SHORT : TRAN_RC_CALL_SHORT;
  ended.recorded = true;
  return TRAN_RC_OK;
}

int pop_call(MTR_CXT_VAR& var, int call_top, int rc, EndedCall& ended) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  CallEntry& call = entry.call_stack[call_top - 1];
  const TimeVal end = now(var.clock);
  store_time(call.end_tv, end);
  classify_error(entry, call_top, rc);

  ended.call = &call;
  ended.children = call_top < kMaxCallDepth ? &entry.call_stack[call_top] : nullptr;
  ended.level = call_top;
  ended.place = place_of(load(entry.call_last_top), call_top);
  ended.elapsed = elapsed_us(load_time(call.start_tv), end);
  if (ended.place != Place::kParent) {
    add_up_leaf(entry, ended);
  } else if (ended.children != nullptr) {
    ended.children_elapsed = load(ended.children->lvl_elapsed_us);
    ended.children_dbio = load(ended.children->lvl_dbio_us);
  }
  calc_call_stat(var, ended);
  const int result = settle_call(var, ended);
  store(entry.call_last_top, static_cast<std::int8_t>(call_top));
  store(entry.call_top, static_cast<std::int8_t>(call_top - 1));
  return result;
}

// All of a call's end but its record.
template <char kType>
int end_call(MTR_CXT_VAR& var, Text func_nm, int rc, EndedCall& ended) {
  ended.service = current_level(var);
  if (ended.service == nullptr) return TRAN_RC_DEPTH;
  if (const int refused = validate_call<kType>(var); refused != 0) return refused;

  PTRC_HASH_ENT& entry = *var.ptrc;
  const int call_top = load(entry.call_top);
  if (call_top < 1 || call_top > kMaxCallDepth) return refuse_end_without_start(func_nm);
  const std::int32_t call_nest = load(entry.call_nest);
  if (call_nest < 0) return refuse_end_below_zero(func_nm);
  const bool too_deep = kType == kBizCall && call_nest > load(entry.trc_depth);
  const int result = too_deep ? TRAN_RC_CALL_TOO_DEEP : pop_call(var, call_top, rc, ended);
  add_to(entry.call_nest, -1);
  return result;
}

}  // namespace
}  // namespace varn

using namespace varn;

extern "C" {

// A start sends nothing: the texts of a record's header are not used.
int TRAN_CALLINFO_S(int tid, const char*, int, const char*, int, const char*, int, const char*, int,
                    const char*, int, const char*, int, const char*, int, const char* call_at,
                    int call_at_len, const char* call_src, int call_src_len, int line, int status,
                    const char* func_nm, int func_nm_len, const char*, int) {
  const StartArgs args = {.call_at = {call_at, call_at_len},
                          .call_src = {call_src, call_src_len},
                          .func_nm = {func_nm, func_nm_len},
                          .line = line,
                          .status = status};
  Call call;
  if (call.code() != 0) return call.code();
  const char type = type_of_call(args.func_nm);
  call.admit_for(log_flag_of_call(type));
  return call.in_context(tid, [&](MTR_CXT_VAR& var) {
    return type == kDbioCall ? start_call<kDbioCall>(var, args) : start_call<kBizCall>(var, args);
  });
}

int TRAN_CALLINFO_F(TRAN_CALL_PARAMETERS) {
  Call call;
  if (call.code() != 0) return call.code();
  EndedCall ended{.type = type_of_call({func_nm, func_nm_len})};
  call.admit_for(log_flag_of_call(ended.type));
  return call.in_context(tid, [&](MTR_CXT_VAR& var) {
    const Text name = {func_nm, func_nm_len};
    const int result = ended.is_dbio() ? end_call<kDbioCall>(var, name, status, ended)
                                       : end_call<kBizCall>(var, name, status, ended);
    if (!ended.recorded) return result;
    // GID and service id are those of the open service.
    const Text head[] = {VARN_HEAD_VIEWS};
    return send_call(var, ended,
                     {.head = head,
                      .call_at = {call_at, call_at_len},
                      .call_src = {call_src, call_src_len},
                      .label = {label, label_len},
                      .line = line});
  });
}

}  // extern "C"
