#include "util/log_printf.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "util/append_file.h"
#include "util/cancel_guard.h"
#include "util/errno_guard.h"
#include "util/local_time.h"
#include "util/quiet_write.h"

namespace varn {
namespace {

constexpr std::size_t kMostMessage = 4095;
constexpr std::size_t kMostPrefix = 64;

struct LogState {
  AppendFile file;
  std::atomic<int> cur_day{-1};           // day of the year of the open file
  std::atomic<unsigned> switch_num{0};    // odd while a thread, one at a time, switches the file
  std::atomic<std::int64_t> reopened{0};  // second in which a lost file was last opened again
  char log_dir[256] = {};
  char log_title[256] = {};
};
LogState log_state;

struct tm local_now() {
  return local_time(time(nullptr));
}

// "2018-05-18", of the file's name. Sets the day that the open file is for.
void get_cur_date(char (&date_str)[32]) {
  const struct tm local = local_now();
  if (std::strftime(date_str, sizeof date_str, "%Y-%m-%d", &local) == 0) date_str[0] = '\0';
  log_state.cur_day.store(local.tm_yday);
}

// "05-18 10:20:30  ", of a line.
void get_cur_time(char (&time_str)[32]) {
  const struct tm local = local_now();
  if (std::strftime(time_str, sizeof time_str, "%m-%d %T  ", &local) == 0) time_str[0] = '\0';
}

// While another thread switches the file, the number stands for the old or the new one.
bool may_write(int fd) {
  if (fd < 0) return false;
  for (;;) {
    const unsigned switch_num = log_state.switch_num.load();
    if (switch_num % 2 != 0 || is_still_ours(log_state.file, fd)) return true;
    if (log_state.switch_num.load() == switch_num) return false;
  }
}

int open_days_file(unsigned mask) {
  char date[32];
  get_cur_date(date);
  char path[sizeof log_state.log_dir + sizeof log_state.log_title + 64];
  std::snprintf(path, sizeof path, "%s/%s-%s-log", log_state.log_dir, log_state.log_title, date);
  return open_appending(path, mask, Owner::kAnybody);
}

// False for a name that does not fit: a shortened path is another path.
bool put_name(char (&place)[256], const char* name) {
  if (name == nullptr) return true;
  if (std::strlen(name) >= sizeof place) return false;
  std::strcpy(place, name);
  return true;
}

// With one thread at a time. Others may be writing to the old descriptor, so another file takes its
// number in one step; where there is no new file, messages are dropped until the next change of
// day.
void switch_file() {
  AppendFile& file = log_state.file;
  const int old_fd = is_still_ours(file, file.fd.load()) ? file.fd.load() : -1;
  int new_fd = open_days_file(0);
  if (old_fd >= 0 && new_fd < 0) new_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (new_fd >= 0) remember_file(file, new_fd);
  if (old_fd < 0) {
    file.fd.store(new_fd);
  } else if (new_fd >= 0) {
    if (dup3(new_fd, old_fd, O_CLOEXEC) < 0) remember_file(file, old_fd);  // which goes on
    close(new_fd);
  }
}

bool is_another_day() { return local_now().tm_yday != log_state.cur_day.load(); }

bool is_lost() {
  const int fd = log_state.file.fd.load();
  return fd >= 0 && !is_still_ours(log_state.file, fd);
}

// By one thread; others find it done, or go on with the file as it is.
void switch_file_if(bool (*is_wanted)()) {
  unsigned switch_num = log_state.switch_num.load();
  if (switch_num % 2 != 0 ||
      !log_state.switch_num.compare_exchange_strong(switch_num, switch_num + 1))
    return;
  if (is_wanted()) switch_file();
  log_state.switch_num.store(switch_num + 2);
}

// A host may have closed the file together with its own. Tried once a second.
void reopen_lost_file() {
  const std::int64_t now = time(nullptr);
  if (is_lost() && log_state.reopened.exchange(now) != now) switch_file_if(is_lost);
}

}  // namespace

int open_log(const char* dir, const char* title, unsigned mask) {
  if (log_state.file.fd.load() >= 0) return 0;
  if (!put_name(log_state.log_dir, dir) || !put_name(log_state.log_title, title)) return -1;
  if (log_state.log_dir[0] == '\0') return -1;
  const int fd = open_days_file(mask);
  if (fd >= 0) remember_file(log_state.file, fd);
  log_state.file.fd.store(fd);
  return fd >= 0 ? 0 : -1;
}

void close_log() { close_file(log_state.file); }

void forget_log() {
  close_log();
  log_state.log_dir[0] = '\0';
  log_state.switch_num.store(0);
}

void check_day() {
  if (log_state.log_dir[0] != '\0' && is_another_day()) switch_file_if(is_another_day);
}

int log_printf(const char* format, ...) {
  const ErrnoGuard errno_kept;
  char line[kMostPrefix + kMostMessage + 2];
  va_list args;
  va_start(args, format);
  const int formatted = std::vsnprintf(line + kMostPrefix, kMostMessage + 1, format, args);
  va_end(args);
  if (formatted <= 0) return formatted;
  const std::size_t n = std::strlen(line + kMostPrefix);

  const CancelGuard not_cancelled;
  check_day();
  int fd = log_state.file.fd.load();
  if (!may_write(fd)) {
    reopen_lost_file();
    fd = log_state.file.fd.load();
    if (!may_write(fd)) return 0;
  }

  char stamp[32];
  get_cur_time(stamp);
  char prefix[kMostPrefix];
  const auto prefix_size =
      static_cast<std::size_t>(std::snprintf(prefix, sizeof prefix, "(%d) %s", getpid(), stamp));
  char* const begin = line + kMostPrefix - prefix_size;
  std::memcpy(begin, prefix, prefix_size);
  line[kMostPrefix + n] = '\n';
  return static_cast<int>(write_quietly(fd, begin, prefix_size + n + 1));
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
