// What opening, closing and reporting a service share: its record, its depth and what others see of
// it in the thread's shared entry.
#pragma once

#include <cstdint>

#include "core/record.h"
#include "layout/gvar.h"
#include "layout/record.h"

namespace varn {

void set_depth(MTR_CXT_VAR& var, int depth);

// The body of a service record; the pairs from the eighth on stand in it as they are.
void put_service(MTR_CXT_VAR& var, const RecordKind& kind, Pairs pairs, std::int64_t elapsed_us,
                 std::int64_t dbio_elapsed_us);

// Shows the outermost service, whose start the context's record is, in the thread's shared entry,
// and there that it has ended.
void show_started(MTR_CXT_VAR& var, char chnl_class, std::int64_t second);
void show_ended(MTR_CXT_VAR& var, std::int64_t second);

// 'C' when the channel in the context's record is a linked one, else 'O'.
char recorded_chnl_class(const MTR_CXT_VAR& var);

}  // namespace varn
