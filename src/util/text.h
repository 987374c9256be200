// Text as it comes from a caller, and the two ways in which it goes into a fixed-width field.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace varn {

// Borrowed bytes as a caller passed them: not necessarily zero-ended, valid until the exported call
// returns. What null and a negative length mean is settled here and nowhere else.
struct Text {
  const char* ptr = nullptr;
  std::int32_t len = 0;  // negative: up to the zero byte

  constexpr Text() = default;
  constexpr Text(const char* p, std::int32_t n) : ptr(p), len(n) {}
  template <std::size_t kSize>
  static constexpr Text of(const char (&field)[kSize]) {
    return {field, static_cast<std::int32_t>(kSize)};
  }

  constexpr bool given() const { return ptr != nullptr; }

  // Its bytes cut to `width`; never looks further than that.
  std::size_t size(std::size_t width) const {
    if (ptr == nullptr) return 0;
    if (len < 0) return strnlen(ptr, width);
    const auto n = static_cast<std::size_t>(len);
    return n < width ? n : width;
  }
  std::string_view clipped(std::size_t width) const { return {ptr, size(width)}; }
};

// Both ends of `n` bytes as one word each; they overlap in the middle.
template <typename Word>
void move_ends(char* to, const char* from, std::size_t n) {
  Word first;
  Word last;
  std::memcpy(&first, from, sizeof first);
  std::memcpy(&last, from + n - sizeof last, sizeof last);
  std::memcpy(to, &first, sizeof first);
  std::memcpy(to + n - sizeof last, &last, sizeof last);
}

// memmove of `n` bytes, at most `width` of them, without a call where they are few: most fields of
// a record are short, and the call alone costs more than their bytes do.
inline void move_text(char* to, const char* from, std::size_t n, std::size_t width) {
  if (width > 32 && n > 32)
    std::memmove(to, from, n);
  else if (width >= 16 && n >= 16)
    move_ends<unsigned __int128>(to, from, n);
  else if (width >= 8 && n >= 8)
    move_ends<std::uint64_t>(to, from, n);
  else if (width >= 4 && n >= 4)
    move_ends<std::uint32_t>(to, from, n);
  else if (width >= 2 && n >= 2)
    move_ends<std::uint16_t>(to, from, n);
  else if (n == 1)
    *to = *from;
}

// Fills `width` bytes with the text, cut or padded with blanks. The text may overlap the field.
inline void put_padded(char* field, std::size_t width, Text text) {
  const std::size_t n = text.size(width);
  move_text(field, text.ptr, n, width);
  if (n < width) std::memset(field + n, ' ', width - n);
}

// "00" to "99".
inline constexpr auto kDigitPairs = [] {
  std::array<char, 200> pairs{};
  for (std::size_t n = 0; n < 100; ++n) {
    pairs[2 * n] = static_cast<char>('0' + n / 10);
    pairs[2 * n + 1] = static_cast<char>('0' + n % 10);
  }
  return pairs;
}();

// The two digits of a number below 100.
inline void put_pair(char* place, std::size_t number) {
  std::memcpy(place, &kDigitPairs[number * 2], 2);
}

// The six digits of a number below 1,000,000.
inline void put_micros(char* place, std::uint32_t us) {
  put_pair(place, us / 10'000);
  put_pair(place + 2, us / 100 % 100);
  put_pair(place + 4, us % 100);
}

inline constexpr auto kPowersOfTen = [] {
  std::array<std::uint64_t, 20> powers{};
  std::uint64_t power = 1;
  for (std::uint64_t& each : powers) {
    each = power;
    power *= 10;
  }
  return powers;
}();

// Decimal digits of a number; one for zero.
constexpr std::size_t digit_count(std::uint64_t number) {
  // 1233 / 4096 is a little over log10(2).
  const auto below = static_cast<std::size_t>(std::bit_width(number | 1) * 1233 >> 12);
  return below + (number >= kPowersOfTen[below] ? 1 : 0) + (number == 0 ? 1 : 0);
}
static_assert(digit_count(0) == 1 && digit_count(9) == 1 && digit_count(10) == 2);
static_assert(digit_count(9'999'999'999) == 10 && digit_count(~std::uint64_t{0}) == 20);

// Zero-filled decimal digits; a number too large for the field shows as the largest that fits.
inline void put_unsigned(char* field, std::size_t width, std::uint64_t number) {
  std::uint64_t rest = number;
  std::size_t at = width;
  for (; at >= 2; rest /= 100) put_pair(field + (at -= 2), rest % 100);
  if (at != 0) {
    *field = static_cast<char>('0' + rest % 10);
    rest /= 10;
  }
  if (rest != 0) std::memset(field, '9', width);
}

// A negative number shows as zero.
inline void put_digits(char* field, std::size_t width, std::int64_t number) {
  put_unsigned(field, width, number < 0 ? 0 : static_cast<std::uint64_t>(number));
}

// Copies a text into a zero-ended buffer, cutting it.
template <std::size_t kSize>
void put_zero_ended(char (&buffer)[kSize], std::string_view text) {
  const std::size_t n = text.size() < kSize ? text.size() : kSize - 1;
  std::memcpy(buffer, text.data(), n);
  std::memset(buffer + n, 0, kSize - n);
}

}  // namespace varn
