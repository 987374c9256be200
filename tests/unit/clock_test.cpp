#include "util/clock.h"

#include <cstdlib>
#include <ctime>
#include <random>
#include <string>

#include "support/support.h"

namespace varn::test {
namespace {

void use_zone(const char* zone) { setenv("TZ", zone, 1), tzset(); }

std::string text_of(const Stamp& stamp) {
  return std::string(stamp.date, sizeof stamp.date) + std::string(stamp.time, sizeof stamp.time);
}

TEST(LocalStamp, AgreesWithTheLibraryInEveryZone) {
  constexpr std::int64_t kYear = 31'556'952;
  // Half-hour and quarter-hour zones, clocks put forward in north and south and by half an hour.
  for (const char* zone :
       {"UTC0", "KST-9", "NST3:30NDT,M3.2.0,M11.1.0", "CET-1CEST,M3.5.0,M10.5.0/3", "NPT-5:45",
        "LHST-10:30LHDT-11,M10.1.0,M4.1.0", "LINT-14", "AoE12"}) {
    SCOPED_TRACE(zone);
    use_zone(zone);
    StampCache cache = {};
    std::mt19937_64 random(7);
    const auto check = [&](std::int64_t sec) {
      tm local;
      char expected[32];
      localtime_r(&sec, &local);
      std::strftime(expected, sizeof expected, "%Y%m%d%H%M%S012345", &local);
      ASSERT_EQ(text_of(local_stamp(cache, sec, 12'345)), expected) << sec;
    };
    for (int i = 0; i < 20'000; ++i) {  // moments anywhere until 2169, a few seconds at each
      const auto sec = static_cast<std::int64_t>(random() % (200 * kYear));
      for (const int n : {0, 1, 2}) ASSERT_NO_FATAL_FAILURE(check(sec + n));
    }
    // Through a year in steps that meet every quarter of an hour on both sides.
    for (std::int64_t sec = 1'700'000'100; sec < 1'700'000'100 + kYear; sec += 900)
      for (const int near : {-1, 0, 1}) ASSERT_NO_FATAL_FAILURE(check(sec + near));
  }
  use_zone("UTC0");
  StampCache cache = {};
  EXPECT_EQ(text_of(local_stamp(cache, -5, 7)), "19700101000000000007");
  EXPECT_EQ(text_of(local_stamp(cache, INT64_MIN, 0)), "19700101000000000000");
  EXPECT_EQ(text_of(local_stamp(cache, INT64_MAX, 0)).substr(0, 4), "9999");
}

std::int64_t us_of(const TimeVal& tv) { return tv.sec * kUsPerSec + tv.usec; }

// Reads until the counter serves, or for longer than it needs to be measured.
bool is_counter_used(ClockBase& base) {
  const std::int64_t give_up = us_of(now()) + 50'000;
  while (tick_clock.span == 0 && us_of(now()) < give_up) now(base);
  return tick_clock.span != 0;
}

TEST(TickClock, AgreesWithTheSystemsClockAndDoesNotGoBack) {
  ClockBase base = {};
  setenv("VARN_CLOCK", "system", 1);
  start_tick_clock();
  EXPECT_FALSE(is_counter_used(base));
  unsetenv("VARN_CLOCK");
  start_tick_clock();
  if (!is_counter_used(base)) GTEST_SKIP() << "the kernel does not keep time by the counter";

  const std::int64_t end = us_of(now()) + 300'000;
  std::int64_t last = 0;
  for (std::int64_t before = us_of(now()); before < end; before = us_of(now())) {
    const std::int64_t us = us_of(now(base));
    ASSERT_GE(us, before - 2) << "it runs a thousandth slow, for a millisecond";
    ASSERT_LE(us, us_of(now()));
    ASSERT_GE(us, last);
    last = us;
  }
  // A moment that is not this clock's, as after a migration, is not extrapolated from.
  for (const std::uint64_t ticks : {std::uint64_t{0}, ~std::uint64_t{0}}) {
    base = {ticks, 5, 5};
    EXPECT_GE(us_of(now(base)), last);
  }
}

}  // namespace
}  // namespace varn::test
