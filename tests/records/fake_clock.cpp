#include <sys/time.h>

#include <atomic>
#include <cstdlib>
#include <ctime>

#include "records/calls.h"

namespace {
std::atomic<std::int64_t> fake_us{0};
// Or the agent would ask only now and then.
[[maybe_unused]] const int each_time = setenv("VARN_CLOCK", "system", 1);
}  // namespace

// Takes the place of the C library's for everything in the process.
extern "C" [[gnu::visibility("default")]] int gettimeofday(timeval* tv, void*) noexcept {
  std::int64_t us = fake_us.load();
  if (us == 0) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    us = std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
  }
  tv->tv_sec = us / 1'000'000;
  tv->tv_usec = us % 1'000'000;
  return 0;
}

namespace varn::test {

void set_clock(std::int64_t us) { fake_us = us; }
void advance_clock(std::int64_t us) { fake_us += us; }

}  // namespace varn::test
