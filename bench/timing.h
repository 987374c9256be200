// Reading the clock, and what many readings come to.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

namespace varn::bench {

using Clock = std::chrono::steady_clock;

inline double ns_since(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

inline double percentile(std::vector<double>& values, double share) {
  const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::ranges::nth_element(values, values.begin() + at);
  return values[static_cast<std::size_t>(at)];
}

// What the clock adds to what is timed.
inline double clock_ns() {
  std::vector<double> gaps(10'001);
  for (double& gap : gaps) gap = ns_since(Clock::now());
  return percentile(gaps, 0.5);
}

}  // namespace varn::bench
