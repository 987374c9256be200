// TRAN_INFO, TRAN_INFO_EX, TRAN_EVENT, TRAN_ERRINFO and TRAN_SET_SVCTIMEOUT.
#include <algorithm>
#include <cstdio>

#include "api/edge.h"
#include "core/notice.h"
#include "util/clock.h"
#include "util/message.h"

namespace varn {
namespace {

using Trace = int (*)(MTR_CXT_VAR&, Pairs);

int trace_call(int tid, const RecordKind& kind, Trace trace, Pairs pairs) {
  return Call(kind.log_flag).in_context(tid, [&](MTR_CXT_VAR& var) { return trace(var, pairs); });
}

// "[#1-C5] function at place (source::00042)[10:20:30.123456]": the innermost open call.
void describe_call(const CallEntry& call, int call_top, StampCache& cache, char* out,
                   std::size_t size) {
  const TimeVal start = load_time(call.start_tv);
  const Stamp stamp = local_stamp(cache, start.sec, start.usec);
  std::snprintf(out, size, "[#%d-%c%d] %.*s at %.*s (%.*s::%05d)[%.2s:%.2s:%.2s.%.6s]", call_top,
                load(call.type), load(call.seq), static_cast<int>(sizeof call.func_nm),
                call.func_nm, static_cast<int>(sizeof call.call_at), call.call_at,
                static_cast<int>(sizeof call.call_src), call.call_src, load(call.line), stamp.time,
                stamp.time + 2, stamp.time + 4, stamp.time + 6);
}

void report_svctimeout(MTR_CXT_VAR& var) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  store(entry.svc_timeout_seen, std::uint8_t{1});
  const int call_top = std::min<int>(load(entry.call_top), kMaxCallDepth);
  const CallEntry* const open_call = call_top < 1 ? nullptr : &entry.call_stack[call_top - 1];
  const std::int64_t since =
      open_call == nullptr ? load(entry.svc_start_time.sec) : load(open_call->start_tv.sec);
  char described[512] = "";
  if (open_call != nullptr)
    describe_call(*open_call, call_top, var.stamp, described, sizeof described);

  Message<kInfoBody.back().width> message;
  message << "TPSVCTIMEOUT(tpsvctimeout call)이 감지되었습니다.(경과시간 "
          << static_cast<std::int64_t>(static_cast<std::uint64_t>(now(var.clock).sec) -
                                       static_cast<std::uint64_t>(since))
          << " sec) [" << printable(Text::of(entry.main_svc_id), sizeof entry.main_svc_id) << ']'
          << std::string_view(described);
  emit_info(var, {}, {}, message.text());
}

}  // namespace
}  // namespace varn

using namespace varn;

extern "C" {

int TRAN_INFO(TRAN_HEAD_PARAMETERS, const char* message, int message_len) {
  const Text pairs[] = {VARN_HEAD_VIEWS, {message, message_len}};
  static_assert(std::size(pairs) == kHeadPairs + kInfoBody.size());
  return trace_call(tid, kKind<'I'>, trace_info, pairs);
}

int TRAN_INFO_EX(TRAN_HEAD_PARAMETERS, const char* code, int code_len, const char* message,
                 int message_len) {
  const Text pairs[] = {VARN_HEAD_VIEWS, {code, code_len}, {message, message_len}};
  static_assert(std::size(pairs) == kHeadPairs + kInfoExBody.size());
  return trace_call(tid, kKind<'X'>, trace_info_ex, pairs);
}

int TRAN_EVENT(TRAN_HEAD_PARAMETERS, const char* event_cd, int event_cd_len,
               const char* recv_svc_cd, int recv_svc_cd_len, const char* chnl_class,
               int chnl_class_len, const char* message, int message_len) {
  const Text pairs[] = {VARN_HEAD_VIEWS,
                        {event_cd, event_cd_len},
                        {recv_svc_cd, recv_svc_cd_len},
                        {chnl_class, chnl_class_len},
                        {message, message_len}};
  static_assert(std::size(pairs) == kHeadPairs + kEventBody.size());
  return trace_call(tid, kKind<'V'>, trace_event, pairs);
}

int TRAN_ERRINFO(TRAN_HEAD_PARAMETERS, const char* error_cd, int error_cd_len,
                 const char* recv_svc_cd, int recv_svc_cd_len, const char* chnl_class,
                 int chnl_class_len, const char* message, int message_len) {
  const Text pairs[] = {VARN_HEAD_VIEWS,
                        {error_cd, error_cd_len},
                        {recv_svc_cd, recv_svc_cd_len},
                        {chnl_class, chnl_class_len},
                        {message, message_len}};
  static_assert(std::size(pairs) == kHeadPairs + kErrInfoBody.size());
  return trace_call(tid, kKind<'E'>, trace_errinfo, pairs);
}

int TRAN_SET_SVCTIMEOUT(int tid) {
  Call call;
  if (call.code() == TRAN_RC_NOT_SENT) store(gvar.svc_timeout_flag, 1);
  return call.in_context(tid, [](MTR_CXT_VAR& var) {
    report_svctimeout(var);
    store(gvar.svc_timeout_flag, 1);
    return TRAN_RC_OK;
  });
}

}  // extern "C"
