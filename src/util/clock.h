// The time of day, and the local date and time as records show it, without the lock that localtime
// takes.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <string_view>

#include "layout/stamp.h"
#include "util/shared_word.h"

namespace varn {

inline constexpr std::int64_t kUsPerSec = 1'000'000;
inline constexpr std::int64_t kNsPerSec = 1'000'000'000;

// The current time of day.
inline TimeVal now() {
  timeval tv = {};
  gettimeofday(&tv, nullptr);
  return {tv.tv_sec, tv.tv_usec};
}

// How the processor's time stamp counter runs, once that is known and where the kernel itself keeps
// time by it.
struct TickClock {
  std::atomic<std::uint64_t> span;     // ticks for which a base serves; 0: not in use
  std::atomic<std::uint64_t> nsec_32;  // nanoseconds of a tick, times 2^32
};
extern TickClock tick_clock;

// Process start: has the counter measured from here on, if it can be used.
void start_tick_clock();

[[gnu::cold]] TimeVal read_clock(ClockBase& base);

// The same in half the time: for a millisecond after a reading, the counter alone says how much
// later it is. A step of the system's clock is seen that much later.
inline TimeVal now(ClockBase& base) {
  const std::uint64_t span = tick_clock.span.load(std::memory_order_acquire);
  if (span == 0) [[unlikely]]
    return read_clock(base);
  // A counter that went back, or that another machine's took the place of, is far ahead.
  const std::uint64_t ticks = __builtin_ia32_rdtsc() - base.ticks;
  if (ticks >= span) return read_clock(base);
  const std::int64_t nsec =
      base.nsec +
      static_cast<std::int64_t>(ticks * tick_clock.nsec_32.load(std::memory_order_relaxed) >> 32);
  const bool is_next_second = nsec >= kNsPerSec;
  return {base.sec + (is_next_second ? 1 : 0), (is_next_second ? nsec - kNsPerSec : nsec) / 1000};
}

// Microseconds from one moment to another. Either may be garbage out of a shared entry: the result
// wraps.
inline std::int64_t elapsed_us(const TimeVal& from, const TimeVal& to) {
  const auto us = [](const TimeVal& tv) {
    return static_cast<std::uint64_t>(tv.sec) * kUsPerSec + static_cast<std::uint64_t>(tv.usec);
  };
  return static_cast<std::int64_t>(us(to) - us(from));
}

// A moment in a shared entry.
inline TimeVal load_time(const TimeVal& place) { return {load(place.sec), load(place.usec)}; }
inline void store_time(TimeVal& place, const TimeVal& tv) {
  store(place.sec, tv.sec);
  store(place.usec, tv.usec);
}

// The decimal digits of a second, where the cache has them; none otherwise.
inline std::string_view cached_digits(const StampCache& cache, std::int64_t sec) {
  constexpr std::int64_t kTenDigits = 1'000'000'000;
  if (sec != cache.second || sec < kTenDigits || sec >= 10 * kTenDigits) return {};
  return {cache.seconds, sizeof cache.seconds};
}

// The moment in local time. Seconds outside the years 1970 to 9999 show as the nearest inside.
Stamp local_stamp(StampCache& cache, std::int64_t sec, std::int64_t usec);

}  // namespace varn
