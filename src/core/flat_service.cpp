// Services of threads that keep no levels.
#include "core/service.h"
#include "core/service_record.h"
#include "core/validate.h"
#include "util/clock.h"

namespace varn {
namespace {

// Composes a record from the call's own texts alone, once validation has passed.
TimeVal compose(MTR_CXT_VAR& var, const RecordKind& kind, Pairs pairs) {
  const TimeVal current = now(var.clock);
  put_header(var, var.rec, kind, pairs.first(kHeadPairs), pairs[kPair_gid],
             local_stamp(var.stamp, current.sec, current.usec));
  put_service(var, kind, pairs, 0, 0);
  return current;
}

}  // namespace

void enter_flat(MTR_CXT_VAR& var) { set_depth(var, 1); }

int start_flat(MTR_CXT_VAR& var, const ServiceForm& form, Pairs pairs) {
  enter_flat(var);
  if (const int rc = trace_validate(var, form.start.rec_type, form.start_api, var.rec,
                                    pairs[kPair_svc_id], pairs[kPair_chnl_typ_cd]);
      rc != 0)
    return rc;
  const TimeVal current = compose(var, form.start, pairs);
  show_started(var, form.is_partial ? 'O' : recorded_chnl_class(var), current.sec);
  return tran_logb(var, var.rec);
}

int end_flat(MTR_CXT_VAR& var, const ServiceForm& form, Pairs pairs) {
  enter_flat(var);
  if (const int rc =
          trace_validate(var, form.end.rec_type, form.end_api, var.rec, pairs[kPair_svc_id], {});
      rc != 0)
    return rc;
  const TimeVal current = compose(var, form.end, pairs);
  const int rc = tran_logb(var, var.rec);
  show_ended(var, current.sec);
  return rc;
}

int report_flat_error(MTR_CXT_VAR& var, Pairs pairs) {
  enter_flat(var);
  if (const int rc = trace_validate(var, '9', kClhErrorApi, var.rec, pairs[kPair_svc_id], {});
      rc != 0)
    return rc;
  compose(var, kKind<'9'>, pairs);
  return tran_logb(var, var.rec);
}

}  // namespace varn
