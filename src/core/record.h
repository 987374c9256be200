// Composing a record in its thread's buffer and sending it.
#pragma once

#include <span>

#include "layout/gvar.h"
#include "util/text.h"

namespace varn {

using Pairs = std::span<const Text>;

// The current time of day.
TimeVal now();

// Fills the header but for the service id, which validation has written. The first seven pairs are
// a call's; `gid` stands for its GID.
void put_header(MTR_CXT_VAR& var, const RecordKind& kind, Pairs head, Text gid, const Stamp& stamp);

// Fills neighbouring fields, none of whose texts may lie in them.
void put_fields(char* view, std::span<const Field> fields, Pairs texts);

// Sets the length and blanks what a longer record left behind the body.
void close_record(MTR_CXT_VAR& var, const RecordKind& kind);

// Sends a record to the queue that its GID's hash chooses: the queue's number; 105 when it could
// not be put there, which is counted; 102 for a type that is not sent.
int tran_logb(MTR_CXT_VAR& var, const TRAN_LOGF_QUE_DATA& record);

}  // namespace varn
