// The process-thread table's stacks of entry numbers.
#pragma once

#include <cstdint>

#include "hash/index_stack.h"
#include "layout/ptrc_hash_tbl.h"

namespace varn {

// The new count, or -1 when the stack is full.
inline std::int32_t ptrc_hash_push(TableStack* stack, std::uint32_t n) {
  return stack_push(*stack, n);
}

// The top number, or -1 when the stack is empty.
inline std::int32_t ptrc_hash_pop(TableStack* stack) { return stack_pop(*stack); }

}  // namespace varn
