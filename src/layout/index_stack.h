// A stack of entry numbers in a shared table. The top is numbers[count - 1].
#pragma once

#include <cstdint>

namespace varn {

template <std::uint32_t kCapacity>
struct IndexStack {
  static constexpr std::uint32_t capacity = kCapacity;
  std::uint32_t count;
  std::uint32_t numbers[kCapacity];
};

inline constexpr int kTableEntries = 10'000;  // of the service and of the process-thread table
inline constexpr int kTableChains = 65'536;
inline constexpr std::int32_t kNoEntry = -1;

using TableStack = IndexStack<kTableEntries>;
static_assert(sizeof(TableStack) == 40'004);

}  // namespace varn
