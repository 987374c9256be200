// The service table's stacks of entry numbers.
#pragma once

#include <cstdint>

#include "layout/svc_hash_tbl.h"

namespace varn {

std::int32_t svc_hash_push(TableStack* stack, std::uint32_t n);  // new count; -1: full
std::int32_t svc_hash_pop(TableStack* stack);                    // number; -1: empty

// Takes `n` out wherever it stands; the top number takes its place. `n`, or -1 when it is not
// there.
std::int32_t svc_hash_popv(TableStack* stack, std::int32_t n);

void svc_hash_show(const TableStack* stack);  // to the agent log

}  // namespace varn
