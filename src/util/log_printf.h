// The agent's log: one file a day in a directory that all processes of a host write to, one line a
// message, each line one write.
#pragma once

#include <atomic>
#include <cstdint>

namespace varn {

// Opens the day's file "DIR/TITLE-YYYY-MM-DD-log" for appending, with permissions 0666 less `mask`.
// Null keeps the directory or title given before; either has at most 255 characters. 0, also when a
// log is open already; or -1.
int open_log(const char* dir, const char* title, unsigned mask);

void close_log();

// Writes "(PID) MM-DD HH:MM:SS  MESSAGE" and a newline; a message over 4,095 characters is cut.
// Without an open log the message is dropped. Bytes written, or a value below 1.
[[gnu::format(printf, 1, 2), gnu::cold]] int log_printf(const char* format, ...);

// Switches to the new day's file when the local day has changed.
void check_day();

// How often a line that may repeat with every call has been written. One static object a line.
struct LogLimit {
  static constexpr std::uint32_t kMostPerSecond = 10;
  std::atomic<std::int64_t> second{0};
  std::atomic<std::uint32_t> written{0};     // in that second
  std::atomic<std::uint32_t> suppressed{0};  // since a line was last written
};

// Whether the caller may write its line now: ten times a second. The first line of a later second
// is preceded by one that tells how many were left out.
[[gnu::cold]] bool may_log(LogLimit& limit);

// After a fork, in the child: the parent's file is the parent's.
void forget_log();

}  // namespace varn

// Logs a line that may repeat with every call.
#define VARN_LOG_LIMITED(...)                                             \
  do {                                                                    \
    static ::varn::LogLimit varn_log_limit;                               \
    if (::varn::may_log(varn_log_limit)) ::varn::log_printf(__VA_ARGS__); \
  } while (0)
