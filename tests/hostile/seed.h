// Where a run of random choices begins: VARN_SEED in the environment replays one.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <iterator>
#include <random>

#include "support/support.h"

namespace varn::test {

// The same each time but in the long run, which is to meet something new.
inline std::uint64_t first_seed() {
  if (const char* const given = std::getenv("VARN_SEED")) return std::strtoull(given, nullptr, 10);
  return is_long_run() ? std::random_device{}() : 1;
}

class Random {
 public:
  explicit Random(std::uint64_t seed) : bits_(seed) {}

  std::uint64_t bits() { return bits_(); }
  int below(std::size_t n) { return static_cast<int>(bits_() % n); }
  bool one_in(std::size_t n) { return bits_() % n == 0; }
  template <typename Choices>
  const auto& of(const Choices& choices) {
    return choices[bits_() % std::size(choices)];
  }
  template <typename T>
  T of(std::initializer_list<T> choices) {
    return choices.begin()[bits_() % choices.size()];
  }

 private:
  std::mt19937_64 bits_;
};

}  // namespace varn::test
