// Information, event and error-information records: for the exported calls, and for the agent's own
// notices.
#pragma once

#include "core/record.h"
#include "layout/gvar.h"
#include "util/text.h"

namespace varn {

// A call that is admitted and in its context. `pairs`: the seven of the header, then the body's.
int trace_info(MTR_CXT_VAR& var, Pairs pairs);
int trace_info_ex(MTR_CXT_VAR& var, Pairs pairs);
int trace_event(MTR_CXT_VAR& var, Pairs pairs);
int trace_errinfo(MTR_CXT_VAR& var, Pairs pairs);

// A notice of the agent's own inside another call: admitted for its own kind first.
int emit_info(MTR_CXT_VAR& var, Text gid, Text svc_id, Text message);

struct Event {
  Text hdr_cd, hdr_flag, gid, svc_id;
  Text event_cd, recv_svc_cd, chnl_class, message;
};
int emit_event(MTR_CXT_VAR& var, const Event& event);

}  // namespace varn
