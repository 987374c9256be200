// The levels of a thread's services.
#include "core/service.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/context.h"
#include "core/gvar.h"
#include "core/notice.h"
#include "core/service_record.h"
#include "core/service_text.h"
#include "core/validate.h"
#include "util/clock.h"
#include "util/log_printf.h"
#include "util/message.h"

namespace varn {
namespace {

// Whether a level belongs to the caller's GID.
bool has_gid(const SvcLevel& level, Text gid) { return is_same_gid(Text::of(level.gid), gid); }

// A time set ahead is used once.
bool take_preset_time(PTRC_HASH_ENT& entry, TimeVal* out) {
  const TimeVal preset = load_time(entry.preset_time);
  if (preset.sec == 0) return false;
  store(entry.preset_time.sec, std::int64_t{0});
  *out = preset;
  return true;
}

// Date and time of a record: the date is the current one, the time that of `moment`.
Stamp stamp_of(MTR_CXT_VAR& var, const TimeVal& current, const TimeVal& moment) {
  Stamp stamp = local_stamp(var.stamp, moment.sec, moment.usec);
  if (moment.sec != current.sec) {
    const Stamp today = local_stamp(var.stamp, current.sec, current.usec);
    std::memcpy(stamp.date, today.date, sizeof stamp.date);
  }
  return stamp;
}

[[gnu::cold]] void log_stray_log_bit(const MTR_CXT_VAR& var, const char* bit, int tid,
                                     const SvcLevel& level, Pairs pairs) {
  const std::string_view kept_gid = whole(level.gid);
  const std::string_view kept_svc_id = whole(level.svc_id);
  const std::string_view gid = shown(pairs[kPair_gid], kGid.width, kGid.width);
  const std::string_view svc_id = shown(pairs[kPair_svc_id], kSvcId.width, kSvcId.width);
  VARN_LOG_LIMITED(
      "[CHECK_LOG_BIT] NOK, set %s [ tid : %d, log_bit : %d, PID : %d, GID - Keep {%.*s} Now "
      "{%.*s}, SVC_ID - Keep {%.*s} Now {%.*s} ]",
      bit, tid, var.log_bit, var.pid, VARN_SV(kept_gid), VARN_SV(gid), VARN_SV(kept_svc_id),
      VARN_SV(svc_id));
}

// A depth that cannot be, and what becomes of it where it changes.
[[gnu::cold]] void log_depth_error(LogLimit& limit, const MTR_CXT_VAR& var, const char* what,
                                   int new_depth, Pairs pairs) {
  if (!may_log(limit)) return;
  char value[32];
  if (new_depth == var.svc_depth)
    std::snprintf(value, sizeof value, "%d", var.svc_depth);
  else
    std::snprintf(value, sizeof value, "(%d)->(%d)", var.svc_depth, new_depth);
  const std::string_view gid = shown_gid(pairs[kPair_gid]);
  const std::string_view svc_id = shown_svc_id(pairs[kPair_svc_id]);
  log_printf("<!> %s!(val:%s (MAX:%d)) GID-PID-TID|%.*s|-|%d|-|%lu|, SVC (%.*s).", what, value,
             kMaxSvcDepth, VARN_SV(gid), var.pid, var.tid, VARN_SV(svc_id));
}

// ---- Start ----

[[gnu::cold]] int refuse_negative_depth(const MTR_CXT_VAR& var, Pairs pairs) {
  static LogLimit limit;
  log_depth_error(limit, var, "START service_depth minus error", var.svc_depth, pairs);
  return TRAN_RC_DEPTH;
}

[[gnu::cold]] void drop_overflowed_levels(MTR_CXT_VAR& var, Pairs pairs) {
  static LogLimit limit;
  log_depth_error(limit, var, "START service_depth MAX error", var.svc_depth, pairs);
  set_depth(var, 0);
}

// Levels left open by a service that never ended.
[[gnu::cold]] void drop_stale_levels(MTR_CXT_VAR& var, const ServiceForm& form, Pairs pairs,
                                     const SvcLevel& top, bool same_gid, std::int32_t elapsed) {
  const std::int32_t base = gvar.default_timeout_sec;
  const std::string_view top_gid = whole(top.gid);
  const std::string_view top_svc_id = whole(top.svc_id);
  const std::string_view gid = shown_gid(pairs[kPair_gid]);
  const std::string_view svc_id = shown_svc_id(pairs[kPair_svc_id]);
  if (same_gid)
    VARN_LOG_LIMITED(
        "<!> START - service depth init (%d)->(0) GID-PID-TID%s|%.*s|-|%d|-|%lu|, SVC "
        "(%.*s)->(%.*s)%s svc_depth_elapsed %d sec (base %d sec)",
        var.svc_depth, form.is_partial ? "" : " ", VARN_SV(top_gid), var.pid, var.tid,
        VARN_SV(top_svc_id), VARN_SV(svc_id), form.is_partial ? "," : "", elapsed, base);
  else
    VARN_LOG_LIMITED(
        "<!> START - service depth init (%d)->(0), New GID_UNI -> KEEP |%.*s-%.*s|, NOW "
        "|%.*s-%.*s|, svc_depth_elapsed %d sec (base %d sec)",
        var.svc_depth, VARN_SV(top_gid), VARN_SV(top_svc_id), VARN_SV(gid), VARN_SV(svc_id),
        elapsed, base);
  set_depth(var, 0);
  var.log_bit = 0;
}

// A new transaction begins inside an open one: each is told of the other.
void report_linked_transaction(MTR_CXT_VAR& var, Pairs pairs, const SvcLevel& top,
                               std::int32_t elapsed) {
  const std::string_view top_gid = whole(top.gid);
  const std::string_view top_svc_id = whole(top.svc_id);
  const std::string_view gid = shown_gid(pairs[kPair_gid]);
  const std::string_view svc_id = shown_svc_id(pairs[kPair_svc_id]);
  const int new_depth = var.svc_depth + 1;
  VARN_LOG_LIMITED(
      "(I) START - service depth change (%d)->(%d), New GID_UNI -> KEEP |%.*s-%.*s|, NOW "
      "|%.*s-%.*s|, svc_depth_elapsed %d sec(base %d sec)",
      var.svc_depth, new_depth, VARN_SV(top_gid), VARN_SV(top_svc_id), VARN_SV(gid),
      VARN_SV(svc_id), elapsed, gvar.default_timeout_sec);

  Message<kInfoBody.back().width> created;
  created << "Linked Transaction Created [ GID '" << gid << "' ] , [ Service " << svc_id
          << " - Depth #" << new_depth << " ]";
  emit_info(var, {}, {}, created.text());
  Message<kInfoBody.back().width> exists;
  exists << "Linked Main Service Transaction Exist [ GID '" << top_gid << "' ] , [ Service "
         << top_svc_id << ']';
  emit_info(var, pairs[kPair_gid], pairs[kPair_svc_id], exists.text());
}

// What an open service means for the one that is about to start.
void settle_open_levels(MTR_CXT_VAR& var, const ServiceForm& form, Pairs pairs,
                        std::int64_t second) {
  const SvcLevel* const open = current_level(var);
  if (open == nullptr) return;
  const SvcLevel top = *open;
  const auto elapsed =
      static_cast<std::int32_t>(static_cast<std::uint64_t>(second) -
                                static_cast<std::uint64_t>(load(var.ptrc->svc_mark_time)));
  const bool same_gid = !pairs[kPair_gid].given() || has_gid(top, pairs[kPair_gid]);
  if (gvar.default_timeout_sec <= elapsed)
    drop_stale_levels(var, form, pairs, top, same_gid, elapsed);
  else if (!same_gid && (form.is_partial || !is_linked_channel(pairs[kPair_chnl_typ_cd])))
    report_linked_transaction(var, pairs, top, elapsed);
}

// The time of a start's record; at the outermost level it is also the service's start time.
TimeVal start_moment(MTR_CXT_VAR& var, const TimeVal& current) {
  TimeVal moment = current;
  if (var.svc_depth != 1) return moment;
  take_preset_time(*var.ptrc, &moment);
  store_time(var.ptrc->svc_start_time, moment);
  return moment;
}

// Shows the outermost service in the thread's shared entry. A partial one leaves what was fetched.
void stamp_entry(MTR_CXT_VAR& var, const ServiceForm& form, const TimeVal& current) {
  show_started(var, form.is_partial ? 'O' : recorded_chnl_class(var), current.sec);
  var.svc_call_stat = {};
  if (form.is_partial) return;
  store(var.ptrc->fetch_cnt, 0);
  store(var.ptrc->fetch_rows, 0);
  store(var.ptrc->fetch_time, 0);
}

// Shows a level in the thread's shared entry.
void mirror_level(MTR_CXT_VAR& var, const SvcLevel& level) {
  EntryLevel& mirror = var.ptrc->entry_stack[&level - var.svc_stack];
  std::memcpy(mirror.gid, level.gid, sizeof mirror.gid);
  std::memcpy(mirror.svc_id, level.svc_id, sizeof mirror.svc_id);
}

void name_level(MTR_CXT_VAR& var) {
  const char* const view = var.rec.view;
  SvcLevel* const level = current_level(var);
  if (level == nullptr) return;
  std::memcpy(level->gid, view + kGid.at, sizeof level->gid);
  std::memcpy(level->svc_id, view + kSvcId.at, sizeof level->svc_id);
  mirror_level(var, *level);
}

// A level without a record still has its own name, not that of a service that stood there before.
void name_refused_level(MTR_CXT_VAR& var, Pairs pairs) {
  SvcLevel* const level = current_level(var);
  if (level == nullptr) return;
  put_padded(level->gid, sizeof level->gid, pairs[kPair_gid]);
  put_padded(level->svc_id, sizeof level->svc_id, pairs[kPair_svc_id]);
  mirror_level(var, *level);
}

}  // namespace

int start_service(MTR_CXT_VAR& var, const ServiceForm& form, int tid, Pairs pairs) {
  if (var.svc_depth < 0) return refuse_negative_depth(var, pairs);
  if (var.ptrc == nullptr) return TRAN_RC_NO_ENTRY;
  if (var.svc_depth >= kMaxSvcDepth) drop_overflowed_levels(var, pairs);
  if (var.svc_depth > 0) settle_open_levels(var, form, pairs, time(nullptr));

  // Before validation: a refused start counts as a level, which its end closes.
  set_depth(var, var.svc_depth + 1);
  const Text chnl_typ_cd = pairs[kPair_chnl_typ_cd];
  if (const int rc =
          trace_validate(var, '1', form.start_api, var.rec, pairs[kPair_svc_id], chnl_typ_cd);
      rc != 0) {
    if (rc != TRAN_RC_FOREIGN_ENTRY) name_refused_level(var, pairs);
    return rc;
  }

  if (var.svc_depth == 1) {
    if (var.log_bit != 0 && var.log_bit != (kStartBit | kEndBit))
      log_stray_log_bit(var, "START_BIT", tid, var.svc_stack[0], pairs);
    var.log_bit = kStartBit;
  }
  const TimeVal current = now(var.clock);
  const TimeVal moment = pairs[kPair_time_str].given() ? current : start_moment(var, current);
  put_header(var, var.rec, form.start, pairs.first(kHeadPairs), pairs[kPair_gid],
             stamp_of(var, current, moment));
  put_service(var, form.start, pairs, 0, 0);
  if (var.svc_depth == 1) stamp_entry(var, form, current);
  name_level(var);
  return tran_logb(var, var.rec);
}

namespace {

// ---- End ----

[[gnu::cold]] int refuse_end_without_service(const MTR_CXT_VAR& var, Pairs pairs) {
  static LogLimit limit;
  log_depth_error(limit, var, "END service_depth error", var.svc_depth, pairs);
  return TRAN_RC_DEPTH;
}

[[gnu::cold]] int refuse_end_beyond_stack(MTR_CXT_VAR& var, const ServiceForm& form, Pairs pairs) {
  static LogLimit limit;
  log_depth_error(limit, var, "END service_depth max error", var.svc_depth - 1, pairs);
  if (form.is_partial)
    set_depth(var, var.svc_depth - 1);
  else
    --var.svc_depth;  // the entry keeps its own
  return TRAN_RC_DEPTH;
}

float average_ms(std::int64_t sum_us, std::uint32_t count) {
  if (sum_us == 0 || count == 0) return 0;
  return static_cast<float>(sum_us) / static_cast<float>(count) / 1000.0F;
}

std::int32_t whole_ms(std::int64_t us) { return static_cast<std::int32_t>(us / 1000); }

void report_call_statistics(MTR_CXT_VAR& var, const ServiceForm& form) {
  const PTRC_HASH_ENT& entry = *var.ptrc;
  const SvcCallStat& stat = var.svc_call_stat;
  Message<kInfoBody.back().width> message;
  message << "처리 모듈(함수)통계 [ 총 호출 " << load(entry.call_cnt) << " 건 ] [ Max Depth "
          << stat.max_call_nest << " ] [ BIZCALL(Method) "
          << static_cast<std::int32_t>(stat.biz_cnt) << "건 (전체 Avg/Max ";
  message.fixed2(average_ms(stat.biz_elapsed_sum, stat.biz_cnt))
      << '/' << whole_ms(stat.biz_max) << " ms, 개별 Max " << whole_ms(stat.biz_self_max)
      << " ms) ], [ DBIO " << static_cast<std::int32_t>(stat.dbio_cnt) << "건 (Avg/Max ";
  message.fixed2(average_ms(stat.dbio_elapsed_sum, stat.dbio_cnt))
      << '/' << whole_ms(stat.dbio_max) << " ms)";
  if (!form.is_partial) {
    const std::int32_t fetch_time = load(entry.fetch_time);
    message << " fetch " << load(entry.fetch_rows) << " rows (" << fetch_time / 1000 << '.'
            << fetch_time % 1000 << " ms), (DBConn " << whole(entry.db_user) << '/'
            << whole(entry.db_sid) << ')';
  }
  message << " ]";
  emit_info(var, {}, {}, message.text());
}

void report_changed_gid(MTR_CXT_VAR& var, Pairs pairs, SvcLevel& top) {
  const std::string_view start_gid = printable(Text::of(top.gid), kComparedGid);
  const std::string_view end_gid = printable(pairs[kPair_gid], kComparedGid);
  Message<kInfoBody.back().width> message;
  message << "< Warning!! > GID " << static_cast<std::int32_t>(kComparedGid)
          << " Bytes Changed.[ Start GID '" << start_gid << "' -> End GID '" << end_gid << "' ]";
  emit_info(var, Text::of(top.gid), pairs[kPair_svc_id], message.text());
  emit_info(var, pairs[kPair_gid], pairs[kPair_svc_id], message.text());

  Event event;
  event.gid = Text::of(top.gid);
  event.svc_id = Text::of(top.svc_id);
  event.event_cd = {"1801", 4};
  event.recv_svc_cd = {top.recv_svc_cd, -1};
  event.message = message.text();
  const int rc = emit_event(var, event);
  VARN_LOG_LIMITED("(I) EVENT_GLOBAL_ID_CHANGED (GID %.*s) TRAN_EVENT ret = %d", VARN_SV(end_gid),
                   rc);
}

struct EndTimes {
  TimeVal moment;
  std::int64_t elapsed = 0;
  std::int64_t dbio_elapsed = 0;
};

// A response time is known at the end of an outermost service whose start was recorded and whose
// times are the agent's own.
EndTimes end_times(MTR_CXT_VAR& var, Pairs pairs, const TimeVal& current) {
  EndTimes times{.moment = current};
  if (pairs[kPair_time_str].given() || var.log_bit == kEndBit || var.svc_depth != 1) return times;
  PTRC_HASH_ENT& entry = *var.ptrc;
  take_preset_time(entry, &times.moment);
  store_time(entry.svc_end_time, times.moment);
  times.elapsed = elapsed_us(load_time(entry.svc_start_time), times.moment);
  times.dbio_elapsed = load(entry.dbio_elapsed_total);
  return times;
}

int report_snapshot(MTR_CXT_VAR& var, Pairs pairs) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  char tx_cd[sizeof entry.snapshot_tx_cd];
  std::memcpy(tx_cd, entry.snapshot_tx_cd, sizeof tx_cd);
  Message<kEventBody.back().width> message;
  message << "거래코드(" << whole(tx_cd) << ")에 대한 SNAPSHOT 모니터링을 완료하였습니다. [서비스("
          << std::string_view(var.rec.view + kSvcId.at, kSvcId.width)
          << ") 응답시간: " << std::string_view(var.rec.view + kElapsed.at, kElapsed.width)
          << " (us)]";
  Event event;
  event.hdr_cd = pairs[kPair_hdr_cd];
  event.hdr_flag = pairs[kPair_hdr_flag];
  event.gid = pairs[kPair_gid];
  event.svc_id = pairs[kPair_svc_id];
  event.event_cd = {"1302", 4};
  const std::string_view code = whole(tx_cd);
  event.recv_svc_cd = {code.data(), static_cast<std::int32_t>(code.size())};
  event.chnl_class = {&entry.chnl_class, 1};
  event.message = message.text();
  const int rc = emit_event(var, event);
  store(entry.snapshot_state, static_cast<std::uint8_t>(kSnapshotNone));
  store(entry.snapshot_aux, std::int64_t{0});
  return rc;
}

}  // namespace

int end_service(MTR_CXT_VAR& var, const ServiceForm& form, int tid, Pairs pairs) {
  const int depth = load(var.svc_depth);
  if (depth < 1) return refuse_end_without_service(var, pairs);
  if (depth > kMaxSvcDepth) return refuse_end_beyond_stack(var, form, pairs);
  SvcLevel& top = var.svc_stack[depth - 1];
  if (const int rc = trace_validate(var, '2', form.end_api, var.rec, Text::of(top.svc_id), {});
      rc != 0) {
    if (!form.is_partial) set_depth(var, depth - 1);
    return rc;
  }

  const bool outermost = depth == 1;
  if (outermost && ((var.log_bit & kStartBit) == 0 || (var.log_bit & kEndBit) != 0))
    log_stray_log_bit(var, "END_BIT", tid, top, pairs);
  if (outermost && load(var.ptrc->call_cnt) >= 1) report_call_statistics(var, form);
  if (!form.is_partial && pairs[kPair_gid].given() && !has_gid(top, pairs[kPair_gid]))
    report_changed_gid(var, pairs, top);
  if (outermost) var.log_bit |= kEndBit;

  const TimeVal current = now(var.clock);
  const EndTimes times = end_times(var, pairs, current);
  put_header(var, var.rec, form.end, pairs.first(kHeadPairs), Text::of(top.gid),
             stamp_of(var, current, times.moment));
  put_field<kSvcId>(var.rec.view, Text::of(top.svc_id));  // notices wrote theirs
  put_service(var, form.end, pairs, times.elapsed, times.dbio_elapsed);
  int rc = tran_logb(var, var.rec);

  if (outermost) {
    show_ended(var, current.sec);
    if (load(var.ptrc->snapshot_state) == kSnapshotFinished) rc = report_snapshot(var, pairs);
  }
  set_depth(var, depth - 1);
  return rc;
}

// ---- Error ----

int report_error(MTR_CXT_VAR& var, Pairs pairs) {
  const SvcLevel* const level = current_level(var);
  if (level == nullptr) return TRAN_RC_DEPTH;
  if (const int rc = trace_validate(var, '9', kErrorApi, var.rec, Text::of(level->svc_id), {});
      rc != 0)
    return rc;
  const TimeVal current = now(var.clock);
  put_header(var, var.rec, kKind<'9'>, pairs.first(kHeadPairs), Text::of(level->gid),
             local_stamp(var.stamp, current.sec, current.usec));
  put_service(var, kKind<'9'>, pairs, 0, 0);
  return tran_logb(var, var.rec);
}

}  // namespace varn
