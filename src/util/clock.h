// The time of day, and the local date and time as records show it, without the lock that localtime
// takes.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "layout/stamp.h"
#include "util/shared_word.h"

namespace varn {

inline constexpr std::int64_t kUsPerSec = 1'000'000;

// The current time of day.
inline TimeVal now() {
  timeval tv = {};
  gettimeofday(&tv, nullptr);
  return {tv.tv_sec, tv.tv_usec};
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

// The moment in local time. Seconds outside the years 1970 to 9999 show as the nearest inside.
Stamp local_stamp(StampCache& cache, std::int64_t sec, std::int64_t usec);

}  // namespace varn
