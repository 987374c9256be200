// How telegrams follow one another on a connection: each begins with the length of all of it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>

namespace gateway {

inline constexpr std::size_t kLengthSize = 8;
inline constexpr std::size_t kLongestTelegram = 1'000'000;

// What the first eight characters say, unless that is no number or no length that a telegram has.
inline std::optional<std::size_t> telegram_length(std::string_view digits) {
  if (digits.size() != kLengthSize) return std::nullopt;
  if (!std::ranges::all_of(digits, [](char c) { return c >= '0' && c <= '9'; }))
    return std::nullopt;
  std::size_t length = 0;
  for (const char digit : digits) length = length * 10 + static_cast<std::size_t>(digit - '0');
  if (length < kLengthSize || length > kLongestTelegram) return std::nullopt;
  return length;
}

}  // namespace gateway
