#include "core/notice.h"

#include "core/context.h"
#include "core/gvar.h"
#include "core/tran_ex.h"
#include "core/validate.h"
#include "util/clock.h"
#include "util/log_printf.h"
#include "util/message.h"

namespace varn {
namespace {

constexpr std::size_t kLoggedGid = 30;

// Composes and sends, once validation has passed.
template <char kRecType, const auto& kBody>
int send_notice(MTR_CXT_VAR& var, Pairs pairs, Text gid) {
  const TimeVal tv = now(var.clock);
  const RecordKind& kind = kKind<kRecType>;
  put_header(var, var.rec, kind, pairs.first(kHeadPairs), gid,
             local_stamp(var.stamp, tv.sec, tv.usec));
  put_fields<kBody>(var.rec.view, pairs.subspan(kHeadPairs));
  close_record(var, kind);
  return tran_logb(var, var.rec);
}

Text given_or_level_gid(Text gid, const SvcLevel* level) {
  return gid.given() || level == nullptr ? gid : Text::of(level->gid);
}

}  // namespace

int trace_info(MTR_CXT_VAR& var, Pairs pairs) {
  const SvcLevel* const level = current_level(var);
  Text svc_id = pairs[kPair_svc_id];
  if (!svc_id.given()) {
    if (level == nullptr) {
      const std::string_view gid = printable(pairs[kPair_gid], kLoggedGid);
      VARN_LOG_LIMITED(
          "<!> INFO service_depth error!(val:%d (MAX:%d)), GID-PID-TID |%.*s|-|%d|-|%lu|",
          var.svc_depth, kMaxSvcDepth, static_cast<int>(gid.size()), gid.data(), var.pid, var.tid);
      return TRAN_RC_DEPTH;
    }
    svc_id = Text::of(level->svc_id);
  }
  if (const int rc = trace_validate(var, 'I', kInfoApi, var.rec, svc_id, {}); rc != 0) return rc;
  return send_notice<'I', kInfoBody>(var, pairs, given_or_level_gid(pairs[kPair_gid], level));
}

int trace_info_ex(MTR_CXT_VAR& var, Pairs pairs) {
  if (const int rc = trace_validate(var, 'X', kInfoExApi, var.rec, pairs[kPair_svc_id], {});
      rc != 0)
    return rc;
  return send_notice<'X', kInfoExBody>(var, pairs,
                                       given_or_level_gid(pairs[kPair_gid], current_level(var)));
}

int trace_event(MTR_CXT_VAR& var, Pairs pairs) {
  if (const int rc = trace_validate(var, 'V', kEventApi, var.rec, pairs[kPair_svc_id], {}); rc != 0)
    return rc;
  return send_notice<'V', kEventBody>(var, pairs, pairs[kPair_gid]);
}

int trace_errinfo(MTR_CXT_VAR& var, Pairs pairs) {
  const SvcLevel* const level = current_level(var);
  if (level == nullptr) return TRAN_RC_DEPTH;
  if (const int rc = trace_validate(var, 'E', kErrInfoApi, var.rec, Text::of(level->svc_id), {});
      rc != 0)
    return rc;
  return send_notice<'E', kErrInfoBody>(var, pairs, Text::of(level->gid));
}

int emit_info(MTR_CXT_VAR& var, Text gid, Text svc_id, Text message) {
  if (const int rc = admit(kKind<'I'>.log_flag); rc != 0) return rc;
  Text pairs[kHeadPairs + 1];
  pairs[kPair_gid] = gid;
  pairs[kPair_svc_id] = svc_id;
  pairs[kHeadPairs] = message;
  return trace_info(var, pairs);
}

int emit_event(MTR_CXT_VAR& var, const Event& event) {
  if (const int rc = admit(kKind<'V'>.log_flag); rc != 0) return rc;
  const Text pairs[] = {
      event.hdr_cd, event.hdr_flag, event.gid,         event.svc_id,     {},           {},
      {},           event.event_cd, event.recv_svc_cd, event.chnl_class, event.message};
  static_assert(std::size(pairs) == kHeadPairs + kEventBody.size());
  return trace_event(var, pairs);
}

}  // namespace varn
