// Text as it comes from a caller, and the two ways in which it goes into a fixed-width field.
#pragma once

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

// Fills `width` bytes with the text, cut or padded with blanks. The text may overlap the field.
inline void put_padded(char* field, std::size_t width, Text text) {
  const std::size_t n = text.size(width);
  if (n != 0) std::memmove(field, text.ptr, n);
  std::memset(field + n, ' ', width - n);
}

// Zero-filled decimal digits; a number too large for the field shows as the largest that fits, a
// negative one as zero.
inline void put_digits(char* field, std::size_t width, std::int64_t number) {
  std::uint64_t rest = number < 0 ? 0 : static_cast<std::uint64_t>(number);
  for (std::size_t i = width; i-- > 0; rest /= 10) field[i] = static_cast<char>('0' + rest % 10);
  if (rest != 0) std::memset(field, '9', width);
}

// Copies a text into a zero-ended buffer, cutting it.
template <std::size_t kSize>
void put_zero_ended(char (&buffer)[kSize], std::string_view text) {
  const std::size_t n = text.size() < kSize ? text.size() : kSize - 1;
  std::memcpy(buffer, text.data(), n);
  std::memset(buffer + n, 0, kSize - n);
}

}  // namespace varn
