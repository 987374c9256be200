// Whether a record may be sent at all.
#pragma once

#include "layout/api_type.h"
#include "layout/gvar.h"
#include "util/text.h"

namespace varn {

// Decides for a record of a type that a call of a kind is about to compose in `record`: 0, or 100,
// 102, 112, 113, 116, 118 or 121. Writes the service id into the record's header; at the outermost
// service start and end it also prepares the thread's shared entry. `snap_cd`: the channel
// type that a requested snapshot is for; service starts only.
int trace_validate(MTR_CXT_VAR& var, char rec_type, ApiType api_type, TRAN_LOGF_QUE_DATA& record,
                   Text svc_id, Text snap_cd);

}  // namespace varn
