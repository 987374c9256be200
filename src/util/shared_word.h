// Words that another thread or process may change at any time: read once, checked, then used.
#pragma once

#include <cstddef>
#include <string_view>

namespace varn {

template <typename T>
T load(const T& word) {
  // NOLINTNEXTLINE(bugprone-sizeof-expression): a word may be a pointer
  static_assert(__atomic_always_lock_free(sizeof(T), nullptr), "a hidden lock is not shared");
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <typename T>
T load_acquire(const T& word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
template <typename T>
void store(T& word, T value) {
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}
template <typename T>
void store_release(T& word, T value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}
// A statistic: exact across processes, orders nothing.
template <typename T>
T add(T& word, T n) {
  return __atomic_add_fetch(&word, n, __ATOMIC_RELAXED);
}

// A zero-ended text, cut to its place. Of two that are stored at once, a mixture may be loaded,
// ended by a zero all the same.
template <std::size_t kSize>
void store_text(char (&place)[kSize], std::string_view text) {
  for (std::size_t n = 0; n + 1 < kSize; ++n) store(place[n], n < text.size() ? text[n] : '\0');
}
template <std::size_t kSize>
void load_text(char* to, const char (&place)[kSize]) {
  for (std::size_t n = 0; n + 1 < kSize; ++n) to[n] = load(place[n]);
  to[kSize - 1] = '\0';
}

}  // namespace varn
