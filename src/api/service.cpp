// TRAN_START, TRAN_END and TRAN_ERROR, and the partial TRAN_PT_START and TRAN_PT_END.
#include "core/service.h"
#include "api/edge.h"

using namespace varn;

extern "C" {

int TRAN_START(int tid TRAN_FIELD_PARAMETERS) {
  return Call(kKind<'1'>.log_flag)
      .in_context(
          tid,
          [&](MTR_CXT_VAR& var) {
            const Text pairs[] = {VARN_FIELD_VIEWS};
            return start_service(var, kPlainForm, tid, pairs);
          },
          "TRAN_START");
}

int TRAN_END(int tid TRAN_FIELD_PARAMETERS) {
  return Call(kKind<'2'>.log_flag).in_context(tid, [&](MTR_CXT_VAR& var) {
    const Text pairs[] = {VARN_FIELD_VIEWS};
    return end_service(var, kPlainForm, tid, pairs);
  });
}

int TRAN_ERROR(int tid TRAN_FIELD_PARAMETERS) {
  return Call(kKind<'9'>.log_flag).in_context(tid, [&](MTR_CXT_VAR& var) {
    const Text pairs[] = {VARN_FIELD_VIEWS};
    return report_error(var, pairs);
  });
}

int TRAN_PT_START(int tid TRAN_PARTIAL_FIELD_PARAMETERS) {
  return Call(kPartialStart.log_flag)
      .in_context(
          tid,
          [&](MTR_CXT_VAR& var) {
            const Text pairs[] = {VARN_PARTIAL_FIELD_VIEWS};
            return start_service(var, kPartialForm, tid, pairs);
          },
          "TRAN_PT_START");
}

int TRAN_PT_END(int tid TRAN_PARTIAL_FIELD_PARAMETERS) {
  return Call(kPartialEnd.log_flag).in_context(tid, [&](MTR_CXT_VAR& var) {
    const Text pairs[] = {VARN_PARTIAL_FIELD_VIEWS};
    return end_service(var, kPartialForm, tid, pairs);
  });
}

}  // extern "C"
