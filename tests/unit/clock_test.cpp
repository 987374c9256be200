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

}  // namespace
}  // namespace varn::test
