#include "hash/svc_hash_stk.h"

#include <algorithm>

#include "hash/index_stack.h"
#include "util/log_printf.h"

namespace varn {

std::int32_t svc_hash_push(TableStack* stack, std::uint32_t n) { return stack_push(*stack, n); }

std::int32_t svc_hash_pop(TableStack* stack) { return stack_pop(*stack); }

std::int32_t svc_hash_popv(TableStack* stack, std::int32_t n) {
  const std::uint32_t count = load(stack->count);
  if (n < 0 || count == 0 || count > TableStack::capacity) return -1;
  std::uint32_t* const end = stack->numbers + count;
  std::uint32_t* const at = std::find(stack->numbers, end, static_cast<std::uint32_t>(n));
  if (at == end) return -1;
  *at = end[-1];
  end[-1] = static_cast<std::uint32_t>(kNoEntry);
  store(stack->count, count - 1);
  return n;
}

void svc_hash_show(const TableStack* stack) {
  const std::uint32_t count = std::min(load(stack->count), TableStack::capacity);
  log_printf("total : %d\n", static_cast<int>(count));
  for (std::uint32_t i = 0; i < count; ++i)
    log_printf("[%d] array_idx#%d\n", static_cast<int>(i), static_cast<int>(stack->numbers[i]));
}

}  // namespace varn
