// The one-at-a-time hash that places services and threads in their tables and transactions on their
// queues. The collector computes the same.
#pragma once

#include <cstddef>
#include <cstdint>

namespace varn {

constexpr std::uint32_t get_hash_code(const char* key, std::size_t len) {
  std::uint32_t h = 0;
  for (std::size_t i = 0; i < len; ++i) {
    h += static_cast<unsigned char>(key[i]);
    h *= 1025;
    h ^= h >> 6;
  }
  h *= 9;
  h ^= h >> 11;
  return h * 32769;
}

constexpr std::uint32_t get_hidx(const char* key, std::size_t len, std::uint32_t mask) {
  return get_hash_code(key, len) & mask;
}

static_assert(get_hash_code("a", 1) == 0xca2e9442);

}  // namespace varn
