// The local date and time as records show it, without the lock that localtime takes.
#pragma once

#include <cstdint>
#include <ctime>

namespace varn {

inline constexpr std::int64_t kUsPerSec = 1'000'000;

// What is remembered between two readings, in a place that one thread at a time uses. All zero is
// empty.
struct StampCache {
  std::int64_t second;       // whose text `date` and `time` hold; 0: none
  std::int64_t offset_from;  // seconds from which `utc_offset` holds,
  std::int64_t offset_until; // and from which it no longer does
  std::int64_t utc_offset;   // seconds east of Greenwich
  char date[8];              // YYYYMMDD
  char time[6];              // HHMMSS
};

// A moment as text: date and time_us are not zero-ended.
struct Stamp {
  char date[8];   // YYYYMMDD
  char time[12];  // HHMMSS and six digits of microseconds
};

Stamp local_stamp(StampCache& cache, std::int64_t sec, std::int64_t usec);

}  // namespace varn
