// The same stack for tables of two million entries.
#pragma once

#include <cstdint>

#include "hash/index_stack.h"

namespace varn {

using JcacheStack = IndexStack<2'000'000>;

// The new count, or -1 when the stack is full.
inline std::int32_t jcache_hash_push(JcacheStack* stack, std::uint32_t n) {
  return stack_push(*stack, n);
}

// The top number, or -1 when the stack is empty.
inline std::int32_t jcache_hash_pop(JcacheStack* stack) { return stack_pop(*stack); }

}  // namespace varn
