// TRAN_CLH_*, TRAN_WEB_* and TRAN_FEP_*: services of one level.
#include "api/edge.h"
#include "core/service.h"

using namespace varn;

extern "C" {

int TRAN_CLH_START(int tid TRAN_FIELD_PARAMETERS) {
  return Call(kKind<'1'>.log_flag)
      .in_context(
          tid,
          [&](MTR_CXT_VAR& var) {
            const Text pairs[] = {VARN_FIELD_VIEWS};
            return start_flat(var, kClhForm, pairs);
          },
          "TRAN_CLH_START");
}

int TRAN_CLH_END(int tid TRAN_FIELD_PARAMETERS) {
  return Call(kKind<'2'>.log_flag).in_context(tid, [&](MTR_CXT_VAR& var) {
    const Text pairs[] = {VARN_FIELD_VIEWS};
    return end_flat(var, kClhForm, pairs);
  });
}

int TRAN_CLH_ERROR(int tid TRAN_FIELD_PARAMETERS) {
  return Call(kKind<'9'>.log_flag).in_context(tid, [&](MTR_CXT_VAR& var) {
    const Text pairs[] = {VARN_FIELD_VIEWS};
    return report_flat_error(var, pairs);
  });
}

int TRAN_WEB_START(int tid TRAN_PARTIAL_FIELD_PARAMETERS) {
  return Call(kPartialStart.log_flag)
      .in_context(
          tid,
          [&](MTR_CXT_VAR& var) {
            const Text pairs[] = {VARN_PARTIAL_FIELD_VIEWS};
            return start_flat(var, kWebForm, pairs);
          },
          "TRAN_WEB_START");
}

int TRAN_WEB_END(int tid TRAN_PARTIAL_FIELD_PARAMETERS) {
  return Call(kPartialEnd.log_flag).in_context(tid, [&](MTR_CXT_VAR& var) {
    const Text pairs[] = {VARN_PARTIAL_FIELD_VIEWS};
    return end_flat(var, kWebForm, pairs);
  });
}

int TRAN_FEP_START(int tid, const char*, int, const char*, int) {
  return Call(kKind<'1'>.log_flag)
      .in_context(
          tid,
          [](MTR_CXT_VAR& var) {
            enter_flat(var);
            return TRAN_RC_OK;
          },
          "TRAN_FEP_START");
}

int TRAN_FEP_END(int tid, const char*, int, const char*, int) {
  return Call(kKind<'2'>.log_flag).in_context(tid, [](MTR_CXT_VAR& var) {
    enter_flat(var);
    return TRAN_RC_OK;
  });
}

}  // extern "C"
