// A message put together piece by piece in a buffer of fixed size; what does not fit is cut. Serves
// where a message travels in a record, so that a traced call does not pay for formatted printing.
// With `kFits` the buffer holds the pieces whatever they are, and none is looked at before it is
// written.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "util/text.h"

namespace varn {

template <std::size_t kCapacity, bool kFits = false>
class Message {
 public:
  [[gnu::always_inline]] Message& operator<<(std::string_view piece) {
    // A literal costs no call.
    if (__builtin_constant_p(piece.size()) && fits(piece.size()))
      std::memcpy(bytes_ + size_, piece.data(), piece.size());
    else if constexpr (kFits)
      move_text(bytes_ + size_, piece.data(), piece.size(), kCapacity);
    else
      return append(piece);
    size_ += piece.size();
    return *this;
  }
  Message& operator<<(char c) {
    if (fits(1)) bytes_[size_++] = c;
    return *this;
  }
  Message& operator<<(std::int64_t number) { return padded(number, 1); }
  Message& operator<<(std::int32_t number) { return *this << static_cast<std::int64_t>(number); }

  // As "%0<width>ld" prints it, for a width of at most 20.
  Message& padded(std::int64_t number, std::size_t width) {
    if (number >= 0 && number < 10 && width <= 1) return *this << static_cast<char>('0' + number);
    if (number < 0) {
      *this << '-';
      if (width > 0) --width;
    }
    const std::uint64_t size =
        number < 0 ? 0 - static_cast<std::uint64_t>(number) : static_cast<std::uint64_t>(number);
    const std::size_t digits = std::max(digit_count(size), width);
    if (fits(digits)) {
      put_unsigned(bytes_ + size_, digits, size);
      size_ += digits;
      return *this;
    }
    char cut[kMostDigits];
    put_unsigned(cut, digits, size);
    return append({cut, digits});
  }

  // As "%06ld" prints it.
  Message& micros(std::int64_t us) {
    if (us < 0 || us >= kUsPerSecond || !fits(6)) return padded(us, 6);
    put_micros(bytes_ + size_, static_cast<std::uint32_t>(us));
    size_ += 6;
    return *this;
  }

  // Microseconds as "%ld.%06ld" prints their seconds and the rest, both truncated toward zero.
  Message& seconds(std::int64_t us) {
    if (us >= 0 && us < kUsPerSecond) return (*this << "0.").micros(us);
    return (*this << us / kUsPerSecond << '.').micros(us % kUsPerSecond);
  }

  // As "%6.2f" prints a number below 10^16. Exact: a float times 100 still fits a double's 53
  // bits, and both round halves to even.
  Message& fixed2(float number) {
    const double exact = double{number} * 100.0;
    auto hundredths = static_cast<std::int64_t>(exact);
    const double left = exact - static_cast<double>(hundredths);
    const double half = left < 0 ? -left : left;
    if (half > 0.5 || (half == 0.5 && hundredths % 2 != 0)) hundredths += left < 0 ? -1 : 1;
    const std::uint64_t size = hundredths < 0 ? 0 - static_cast<std::uint64_t>(hundredths)
                                              : static_cast<std::uint64_t>(hundredths);
    Message<32> digits;
    if (number < 0) digits << '-';
    digits << static_cast<std::int64_t>(size / 100) << '.';
    digits << static_cast<char>('0' + size / 10 % 10) << static_cast<char>('0' + size % 10);
    for (std::size_t n = digits.view().size(); n < 6; ++n) *this << ' ';
    return *this << digits.view();
  }

  std::string_view view() const { return {bytes_, size_}; }
  Text text() const { return {bytes_, static_cast<std::int32_t>(size_)}; }

 private:
  // Out of line: a message has many pieces.
  [[gnu::noinline]] Message& append(std::string_view piece) {
    const std::size_t n = std::min(piece.size(), kCapacity - size_);
    move_text(bytes_ + size_, piece.data(), n, kCapacity);
    size_ += n;
    return *this;
  }
  bool fits(std::size_t n) const { return kFits || n <= kCapacity - size_; }

  static constexpr std::size_t kMostDigits = 20;
  static constexpr std::int64_t kUsPerSecond = 1'000'000;

  std::size_t size_ = 0;
  char bytes_[kCapacity];
};

// The bytes of a caller's text as "%.*s" would print them: up to `width`, or to a zero byte.
inline std::string_view printable(Text text, std::size_t width) {
  const std::string_view bytes = text.clipped(width);
  if (text.len < 0) return bytes;
  return {bytes.data(), bytes.empty() ? 0 : strnlen(bytes.data(), bytes.size())};
}

}  // namespace varn
