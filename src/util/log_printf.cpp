#include "util/log_printf.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace varn {
namespace {

constexpr std::size_t kMostMessage = 4095;
constexpr std::size_t kMostPrefix = 64;

struct LogState {
  std::atomic<int> fd{-1};
  std::atomic<int> cur_day{-1};        // day of the year of the open file
  std::atomic<bool> switching{false};  // one thread at a time switches the file
  char log_dir[256] = {};
  char log_title[256] = {};
};
LogState log_state;

struct tm local_time(time_t now) {
  struct tm local = {};
  localtime_r(&now, &local);
  return local;
}

// The process's file-creation mask is the host's: changing it, even for a moment, would show in
// files that other threads create. So a file that is new gets its permissions afterwards.
int open_appending(const char* path, unsigned mask) {
  for (int tries = 0; tries < 2; ++tries) {
    int fd = open(path, O_RDWR | O_APPEND | O_CLOEXEC);
    if (fd >= 0 || errno != ENOENT) return fd;
    fd = open(path, O_RDWR | O_APPEND | O_CLOEXEC | O_CREAT | O_EXCL, 0666);
    if (fd >= 0) {
      fchmod(fd, 0666 & ~mask);
      return fd;
    }
    if (errno != EEXIST) return -1;
  }
  return -1;
}

int open_days_file(const struct tm& local, unsigned mask) {
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%d", &local);
  char path[sizeof log_state.log_dir + sizeof log_state.log_title + 64];
  std::snprintf(path, sizeof path, "%s/%s-%s-log", log_state.log_dir, log_state.log_title, date);
  log_state.cur_day.store(local.tm_yday);
  return open_appending(path, mask);
}

// False for a name that does not fit: a shortened path is another path.
bool put_name(char (&place)[256], const char* name) {
  if (name == nullptr) return true;
  if (std::strlen(name) >= sizeof place) return false;
  std::strcpy(place, name);
  return true;
}

}  // namespace

int open_log(const char* dir, const char* title, unsigned mask) {
  if (log_state.fd.load() >= 0) return 0;
  if (!put_name(log_state.log_dir, dir) || !put_name(log_state.log_title, title)) return -1;
  if (log_state.log_dir[0] == '\0') return -1;
  const int fd = open_days_file(local_time(time(nullptr)), mask);
  log_state.fd.store(fd);
  return fd >= 0 ? 0 : -1;
}

void close_log() {
  const int fd = log_state.fd.exchange(-1);
  if (fd >= 0) close(fd);
}

void forget_log() {
  close_log();
  log_state.log_dir[0] = '\0';
  log_state.switching.store(false);
}

void check_day() {
  if (log_state.log_dir[0] == '\0') return;
  const struct tm local = local_time(time(nullptr));
  if (local.tm_yday == log_state.cur_day.load()) return;
  if (log_state.switching.exchange(true)) return;
  if (local.tm_yday != log_state.cur_day.load()) {
    const int old_fd = log_state.fd.load();
    int new_fd = open_days_file(local, 0);
    if (old_fd < 0) {
      log_state.fd.store(new_fd);
    } else {
      // Threads may be writing to the old descriptor, so another file takes its number in one step;
      // where there is no new file, messages are dropped until the next change of day.
      if (new_fd < 0) new_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
      dup3(new_fd, old_fd, O_CLOEXEC);
      close(new_fd);
    }
  }
  log_state.switching.store(false);
}

int log_printf(const char* format, ...) {
  char line[kMostPrefix + kMostMessage + 2];
  va_list args;
  va_start(args, format);
  const int formatted = std::vsnprintf(line + kMostPrefix, kMostMessage + 1, format, args);
  va_end(args);
  if (formatted <= 0) return formatted;
  const std::size_t n = std::strlen(line + kMostPrefix);

  check_day();
  const int fd = log_state.fd.load();
  if (fd < 0) return 0;

  const struct tm local = local_time(time(nullptr));
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%m-%d %T  ", &local);
  char prefix[kMostPrefix];
  const auto prefix_size =
      static_cast<std::size_t>(std::snprintf(prefix, sizeof prefix, "(%d) %s", getpid(), stamp));
  char* const begin = line + kMostPrefix - prefix_size;
  std::memcpy(begin, prefix, prefix_size);
  line[kMostPrefix + n] = '\n';
  return static_cast<int>(write(fd, begin, prefix_size + n + 1));
}

bool may_log(LogLimit& limit) {
  const std::int64_t now = time(nullptr);
  std::int64_t second = limit.second.load(std::memory_order_relaxed);
  if (second != now && limit.second.compare_exchange_strong(second, now)) {
    limit.written.store(0, std::memory_order_relaxed);
    const std::uint32_t left_out = limit.suppressed.exchange(0);
    if (left_out != 0) log_printf("(I) %u more lines like the next one were left out", left_out);
  }
  if (limit.written.fetch_add(1) < LogLimit::kMostPerSecond) return true;
  limit.suppressed.fetch_add(1);
  return false;
}

}  // namespace varn
