#include "util/clock.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>

#include "support/support.h"

namespace varn::test {
namespace {

std::string text_of(const Stamp& stamp) {
  return std::string(stamp.date, sizeof stamp.date) + std::string(stamp.time, sizeof stamp.time);
}

std::string by_the_library(std::int64_t sec, int usec) {
  const time_t t = sec;
  struct tm local;
  localtime_r(&t, &local);
  char text[80];
  std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d%06d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, usec);
  return text;
}

TEST(LocalStamp, AgreesWithTheLibraryInEveryZone) {
  constexpr std::int64_t kYear = 31'556'952;
  // Half-hour and quarter-hour zones, clocks put forward in north and south and by half an hour.
  for (const char* zone :
       {"UTC0", "KST-9", "NST3:30NDT,M3.2.0,M11.1.0", "CET-1CEST,M3.5.0,M10.5.0/3", "NPT-5:45",
        "LHST-10:30LHDT-11,M10.1.0,M4.1.0", "LINT-14", "AoE12"}) {
    SCOPED_TRACE(zone);
    setenv("TZ", zone, 1);
    tzset();
    StampCache cache = {};
    std::mt19937_64 random(7);
    const auto check = [&](std::int64_t sec) {
      const int usec = static_cast<int>(random() % 1'000'000);
      ASSERT_EQ(text_of(local_stamp(cache, sec, usec)), by_the_library(sec, usec)) << sec;
    };
    for (int i = 0; i < 20'000; ++i)  // moments anywhere until 2169, a few seconds at each
      for (std::int64_t sec = static_cast<std::int64_t>(random() % (200 * kYear)), n = 0; n < 3;
           ++n)
        ASSERT_NO_FATAL_FAILURE(check(sec + n));
    // Through a year in steps that meet every quarter of an hour on both sides.
    for (std::int64_t sec = 1'700'000'100; sec < 1'700'000'100 + kYear; sec += 900)
      for (const std::int64_t near : {-1, 0, 1}) ASSERT_NO_FATAL_FAILURE(check(sec + near));
  }
  unsetenv("TZ");
  tzset();
}

TEST(LocalStamp, MomentsThatHaveNoDateShowTheNearestOne) {
  setenv("TZ", "UTC0", 1);
  tzset();
  StampCache cache = {};
  EXPECT_EQ(text_of(local_stamp(cache, -5, 7)), "19700101000000000007");
  EXPECT_EQ(text_of(local_stamp(cache, INT64_MIN, 0)), "19700101000000000000");
  EXPECT_EQ(text_of(local_stamp(cache, INT64_MAX, 0)).substr(0, 4), "9999");
  EXPECT_EQ(text_of(local_stamp(cache, 951'782'400, 0)), "20000229000000000000");
  unsetenv("TZ");
  tzset();
}

}  // namespace
}  // namespace varn::test
