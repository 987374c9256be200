// The services of a thread: those that stand on its stack of levels, and the flat ones that put it
// at depth 1. All calls are admitted and in their context; `pairs` are the exported call's, and
// what is returned is the call's result.
#pragma once

#include "core/record.h"
#include "layout/api_type.h"
#include "layout/gvar.h"
#include "util/text.h"

namespace varn {

// What tells the calls of one family from those of another.
struct ServiceForm {
  const RecordKind& start;
  const RecordKind& end;
  ApiType start_api;
  ApiType end_api;
  bool is_partial;  // 20 texts instead of 29, and fewer questions asked
};
inline constexpr ServiceForm kPlainForm{kKind<'1'>, kKind<'2'>, kStartApi, kEndApi, false};
inline constexpr ServiceForm kPartialForm{kPartialStart, kPartialEnd, kPtStartApi, kPtEndApi, true};
inline constexpr ServiceForm kClhForm{kKind<'1'>, kKind<'2'>, kClhStartApi, kClhEndApi, false};
inline constexpr ServiceForm kWebForm{kPartialStart, kPartialEnd, kWebStartApi, kWebEndApi, true};

// ---- Levels: TRAN_START, TRAN_PT_START and what closes them ----

// `tid` is the caller's thread number, for messages.
int start_service(MTR_CXT_VAR& var, const ServiceForm& form, int tid, Pairs pairs);
int end_service(MTR_CXT_VAR& var, const ServiceForm& form, int tid, Pairs pairs);
int report_error(MTR_CXT_VAR& var, Pairs pairs);  // TRAN_ERROR

// ---- Flat services ----

int start_flat(MTR_CXT_VAR& var, const ServiceForm& form, Pairs pairs);
int end_flat(MTR_CXT_VAR& var, const ServiceForm& form, Pairs pairs);
int report_flat_error(MTR_CXT_VAR& var, Pairs pairs);  // TRAN_CLH_ERROR
void enter_flat(MTR_CXT_VAR& var);                     // depth 1, whatever it was

// ---- Both ----

bool is_linked_channel(Text chnl_typ_cd);  // "ICT" or "ICC"

// Of two GIDs, by the characters that tell transactions apart; a shorter one counts as padded.
bool is_same_gid(Text a, Text b);

}  // namespace varn
