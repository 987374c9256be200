#include "examples/common/gid.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace example {

std::string new_gid(const char* system) {
  static std::atomic<unsigned> sequence{0};
  const auto now = std::chrono::system_clock::now();
  const auto since_epoch =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
  const std::time_t second = std::chrono::system_clock::to_time_t(now);
  std::tm local = {};
  localtime_r(&second, &local);
  char date_and_time[16];
  std::strftime(date_and_time, sizeof date_and_time, "%Y%m%d%H%M%S", &local);
  char gid[40];
  std::snprintf(gid, sizeof gid, "%s%03d%.3s0101%06u", date_and_time,
                static_cast<int>(since_epoch.count() % 1000), system, ++sequence % 1'000'000);
  return gid;
}

}  // namespace example
