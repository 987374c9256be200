#include "util/clock.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "util/errno_guard.h"
#include "util/text.h"

namespace varn {
namespace {

// Clocks are put forward and back on quarters of an hour everywhere, so an offset holds for one.
constexpr std::int64_t kOffsetSpan = std::int64_t{15} * 60;
constexpr std::int64_t kSecPerDay = std::int64_t{24} * 60 * 60;
constexpr std::int64_t kLastSecond = 253'402'214'400 - 1;  // a day before the year 10000

struct Civil {
  std::int64_t year;
  std::int64_t month;
  std::int64_t day;
};

// Days since 1970-01-01 to the Gregorian date: years are counted from March, so that a leap day is
// the last of its year, in eras of 400 years.
constexpr Civil civil_from_days(std::int64_t days) {
  days += 719'468;  // from 0000-03-01
  const std::int64_t era = (days >= 0 ? days : days - 146'096) / 146'097;
  const std::int64_t day_of_era = days - era * 146'097;
  const std::int64_t year_of_era =
      (day_of_era - day_of_era / 1'460 + day_of_era / 36'524 - day_of_era / 146'096) / 365;
  const std::int64_t day_of_year =
      day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const std::int64_t month_from_march = (5 * day_of_year + 2) / 153;
  const std::int64_t month = month_from_march < 10 ? month_from_march + 3 : month_from_march - 9;
  return {year_of_era + era * 400 + (month <= 2 ? 1 : 0), month,
          day_of_year - (153 * month_from_march + 2) / 5 + 1};
}
static_assert(civil_from_days(0).year == 1970 && civil_from_days(0).month == 1);
static_assert(civil_from_days(11'016).month == 2 && civil_from_days(11'016).day == 29);

[[gnu::cold, gnu::noinline]] void refresh_offset(StampCache& cache, std::int64_t sec) {
  const ErrnoGuard errno_kept;
  const time_t t = sec;
  struct tm local = {};
  localtime_r(&t, &local);
  cache.utc_offset = local.tm_gmtoff;
  cache.offset_from = sec - sec % kOffsetSpan;
  cache.offset_until = cache.offset_from + kOffsetSpan;
}

void refresh_second(StampCache& cache, std::int64_t sec) {
  if (sec < cache.offset_from || sec >= cache.offset_until) refresh_offset(cache, sec);
  const std::int64_t local = sec + cache.utc_offset;
  std::int64_t days = local / kSecPerDay;
  std::int64_t second_of_day = local % kSecPerDay;
  if (second_of_day < 0) {
    second_of_day += kSecPerDay;
    --days;
  }
  const Civil civil = civil_from_days(days);
  put_digits(cache.date, 4, civil.year);
  put_digits(cache.date + 4, 2, civil.month);
  put_digits(cache.date + 6, 2, civil.day);
  put_digits(cache.time, 2, second_of_day / 3600);
  put_digits(cache.time + 2, 2, second_of_day / 60 % 60);
  put_digits(cache.time + 4, 2, second_of_day % 60);
  cache.second = sec;
}

}  // namespace

Stamp local_stamp(StampCache& cache, std::int64_t sec, std::int64_t usec) {
  if (sec != cache.second || cache.date[0] == '\0') [[unlikely]]
    refresh_second(cache, std::clamp<std::int64_t>(sec, 0, kLastSecond));
  Stamp stamp;
  std::memcpy(stamp.date, cache.date, sizeof stamp.date);
  std::memcpy(stamp.time, cache.time, sizeof cache.time);
  put_digits(stamp.time + 6, 6, usec);
  return stamp;
}

}  // namespace varn
