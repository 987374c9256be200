#include "util/clock.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "util/local_time.h"
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

// ---- The counter ----

constexpr std::uint64_t kMostReading = 20'000;  // ticks that a reading of both clocks may take
constexpr std::int64_t kMeasuredNs = 10'000'000;
constexpr std::int64_t kSpanNs = 1'000'000;

// Both clocks at the start of the measurement: under no lock, a start is one thread's.
struct TickStart {
  std::uint64_t ticks;
  std::int64_t nsec;  // of the monotonic clock, which nobody sets
};
constinit TickStart tick_start = {};
constinit std::atomic<bool> is_measuring = false;

struct Reading {
  timespec time;
  std::uint64_t ticks;  // taken after the time: what is reckoned from them is not ahead of it
  bool is_sharp;        // the thread was not interrupted between the two
};

Reading read_both(clockid_t clock) {
  Reading reading = {};
  const std::uint64_t before = __builtin_ia32_rdtsc();
  clock_gettime(clock, &reading.time);
  reading.ticks = __builtin_ia32_rdtsc();
  reading.is_sharp = reading.ticks - before < kMostReading;
  return reading;
}

std::int64_t nanoseconds(const timespec& time) { return time.tv_sec * kNsPerSec + time.tv_nsec; }

// A counter that stops or runs unevenly is not what the kernel takes for its clock.
bool is_kept_by_kernel() {
  const char* const choice = secure_getenv("VARN_CLOCK");
  if (choice != nullptr && std::strcmp(choice, "system") == 0) return false;
  char name[8] = {};
  const int fd = open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                      O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const ssize_t size = read(fd, name, sizeof name - 1);
  close(fd);
  return size > 0 && std::strcmp(name, "tsc\n") == 0;
}

// Once enough time has passed since the start.
void measure_ticks() {
  const Reading now = read_both(CLOCK_MONOTONIC);
  const std::int64_t nsec = nanoseconds(now.time) - tick_start.nsec;
  const std::uint64_t ticks = now.ticks - tick_start.ticks;
  if (nsec < kMeasuredNs || !now.is_sharp) return;
  if (!is_measuring.exchange(false)) return;
  const double nsec_of_tick = static_cast<double>(nsec) / static_cast<double>(ticks);
  // No counter is so slow or so fast: it was set meanwhile, and the system's clock goes on serving.
  if (nsec_of_tick < 0.05 || nsec_of_tick > 5) return;
  // A little slow, so that time does not step back where a new reading takes over.
  constexpr double kSlow = 1.0 - 1.0 / 1024;
  tick_clock.nsec_32.store(static_cast<std::uint64_t>(nsec_of_tick * kSlow * 0x1p32));
  tick_clock.span.store(static_cast<std::uint64_t>(kSpanNs / nsec_of_tick));
}

// ---- Local time ----

[[gnu::cold, gnu::noinline]] void refresh_offset(StampCache& cache, std::int64_t sec) {
  cache.utc_offset = local_time(sec).tm_gmtoff;
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
  put_digits(cache.seconds, sizeof cache.seconds, sec);
  cache.second = sec;
}

}  // namespace

constinit TickClock tick_clock = {};

void start_tick_clock() {
  if (tick_clock.span.load() != 0 || is_measuring.load() || !is_kept_by_kernel()) return;
  const Reading start = read_both(CLOCK_MONOTONIC);
  if (!start.is_sharp) return;
  tick_start = {start.ticks, nanoseconds(start.time)};
  is_measuring.store(true);
}

TimeVal read_clock(ClockBase& base) {
  if (tick_clock.span.load(std::memory_order_relaxed) == 0) {
    if (is_measuring.load()) measure_ticks();
    return now();
  }
  const Reading reading = read_both(CLOCK_REALTIME);
  base = {reading.ticks, reading.time.tv_sec, reading.time.tv_nsec};
  if (!reading.is_sharp) base.ticks = 0;
  return {reading.time.tv_sec, reading.time.tv_nsec / 1000};
}

Stamp local_stamp(StampCache& cache, std::int64_t sec, std::int64_t usec) {
  if (sec != cache.second || cache.date[0] == '\0') [[unlikely]]
    refresh_second(cache, std::clamp<std::int64_t>(sec, 0, kLastSecond));
  Stamp stamp;
  std::memcpy(stamp.date, cache.date, sizeof stamp.date);
  std::memcpy(stamp.time, cache.time, sizeof cache.time);
  if (usec >= 0 && usec < kUsPerSec) [[likely]]
    put_micros(stamp.time + 6, static_cast<std::uint32_t>(usec));
  else
    put_digits(stamp.time + 6, 6, usec);
  return stamp;
}

}  // namespace varn
