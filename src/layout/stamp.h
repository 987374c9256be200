// A moment as the shared tables hold it, as the text that records show, and what is remembered from
// one moment to the next.
#pragma once

#include <cstdint>

namespace varn {

// Since 1970, UTC.
struct TimeVal {
  std::int64_t sec;
  std::int64_t usec;
};
static_assert(sizeof(TimeVal) == 16);

struct Stamp {
  char date[8];   // YYYYMMDD, local
  char time[12];  // HHMMSS and six digits of microseconds
};

// A reading of the system's clock, and of the processor's time stamp counter with it. Like the
// next, in a place that one thread at a time uses.
struct ClockBase {
  std::uint64_t ticks;
  std::int64_t sec;
  std::int64_t nsec;
};

// All zero is empty.
struct StampCache {
  std::int64_t second;        // whose text `date` and `time` hold
  std::int64_t offset_from;   // seconds from which `utc_offset` holds,
  std::int64_t offset_until;  // and from which it no longer does
  std::int64_t utc_offset;    // seconds east of Greenwich
  char date[8];               // YYYYMMDD
  char time[6];               // HHMMSS
  char seconds[10];           // the second itself in decimal, where it has ten digits
};

}  // namespace varn
