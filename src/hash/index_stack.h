// Pushing and popping entry numbers. The stacks lie in shared memory: a count is read once and not
// trusted, so that a damaged one refuses instead of reaching past the stack.
#pragma once

#include <cstdint>

#include "layout/index_stack.h"
#include "util/shared_word.h"

namespace varn {

// The new count, or -1 when the stack is full.
template <std::uint32_t kCapacity>
std::int32_t stack_push(IndexStack<kCapacity>& stack, std::uint32_t n) {
  const std::uint32_t count = load(stack.count);
  if (count >= kCapacity) return -1;
  stack.numbers[count] = n;
  store(stack.count, count + 1);
  return static_cast<std::int32_t>(count + 1);
}

// The top number, or -1 when the stack is empty. The number itself is the table's to check.
template <std::uint32_t kCapacity>
std::int32_t stack_pop(IndexStack<kCapacity>& stack) {
  const std::uint32_t count = load(stack.count);
  if (count == 0 || count > kCapacity) return -1;
  store(stack.count, count - 1);
  return static_cast<std::int32_t>(load(stack.numbers[count - 1]));
}

}  // namespace varn
