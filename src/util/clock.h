// The local date and time as records show it, without the lock that localtime takes.
#pragma once

#include <cstdint>

#include "layout/stamp.h"

namespace varn {

inline constexpr std::int64_t kUsPerSec = 1'000'000;

// The moment in local time. Seconds outside the years 1970 to 9999 show as the nearest inside.
Stamp local_stamp(StampCache& cache, std::int64_t sec, std::int64_t usec);

}  // namespace varn
