#include "tong/th_job.h"

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "tong/deffered_que.h"
#include "tong/tong.h"
#include "util/append_file.h"
#include "util/clock.h"
#include "util/console.h"
#include "util/log_printf.h"

namespace varn {
namespace {

constexpr std::size_t kStackBytes = std::size_t{512} * 1024;
constexpr int kIdleUs = 300'000;  // between two looks at an empty ring
constexpr int kStopMs = 900;      // for what is queued
constexpr int kStallMs = 200;     // without a record: the disk stands still
constexpr int kLastTurnMs = 50;
constexpr int kOldWriterMs = 100;

enum Order : int {
  kRun,
  kWriteRest,  // and end
  kEndNow,     // at the next turn
};

struct Writer {
  pthread_t th;
  bool is_there;  // started and not joined; under main_lock
  std::atomic<int> order;
  std::atomic<std::uint32_t> turns;  // records done with
  std::atomic<bool> ended;

  // The thread's own.
  AppendFile file;
  char path[640];  // of the open file
  char date[9];    // YYYYMMDD; empty before the first look
  StampCache stamp;
  TongItem item;  // being written; a forked child keeps it, not knowing whether it was freed
  std::int64_t error_second;  // of the last line on the standard error stream
};
constinit Writer writer = {};

pthread_mutex_t idle_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t idle_cond = PTHREAD_COND_INITIALIZER;

// ---- The writer's thread ----

// Until the time is over or the writer is told to end.
void set_idle(int sec, int usec) {
  timespec until = {};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += sec;
  until.tv_nsec += long{usec} * 1000;
  if (until.tv_nsec >= 1'000'000'000) {
    until.tv_nsec -= 1'000'000'000;
    ++until.tv_sec;
  }
  pthread_mutex_lock(&idle_lock);
  int rc = 0;
  while (writer.order.load() == kRun && rc == 0)
    rc = pthread_cond_clockwait(&idle_cond, &idle_lock, CLOCK_MONOTONIC, &until);
  pthread_mutex_unlock(&idle_lock);
}

// Sets the date text: 1 when the day is another than at the last look, 0 otherwise and at the
// first.
int get_date() {
  const Stamp stamp = local_stamp(writer.stamp, time(nullptr), 0);
  if (std::memcmp(writer.date, stamp.date, sizeof stamp.date) == 0) return 0;
  const bool is_first = writer.date[0] == '\0';
  std::memcpy(writer.date, stamp.date, sizeof stamp.date);
  return is_first ? 0 : 1;
}

void open_file() {
  const TongPlace& place = tong_place();
  std::snprintf(writer.path, sizeof writer.path, "%s/tong_log_%s_%s_%d.dat", place.dir, writer.date,
                place.name, place.pid);
  const int fd = open_appending(writer.path, 0, Owner::kSelf);
  if (fd < 0) {
    VARN_LOG_LIMITED("<!> tong log open error, %s, errno(%d) : %s", writer.path, errno,
                     std::strerror(errno));
    return;
  }
  remember_file(writer.file, fd);
  writer.file.fd.store(fd);
  reset_nfailcount();
}

// The descriptor of the day's file, or -1.
int days_file() {
  const bool is_new_day = get_date() == 1;
  if (is_new_day || !is_still_ours(writer.file, writer.file.fd.load())) {
    close_file(writer.file);
    open_file();
  }
  return writer.file.fd.load();
}

// At most once a second, and never where the line would have to wait for its reader.
void report_write_error(int fd, long result) {
  const std::int64_t second = time(nullptr);
  if (console_is_off() || second == writer.error_second) return;
  writer.error_second = second;
  console_printf(STDERR_FILENO, "[Quorlen] TONG_LOG fwrite error %ld [fd:%d, %s]\n", result, fd,
                 writer.path);
}

// Takes the beginning of a record that did not fit away again, if nothing came behind it.
void cut_back(int fd, off_t bytes) {
  const off_t end = lseek(fd, 0, SEEK_CUR);
  struct stat status = {};
  if (end >= bytes && fstat(fd, &status) == 0 && status.st_size == end &&
      ftruncate(fd, end - bytes) != 0)
    VARN_LOG_LIMITED("<!> tong log ftruncate error, %s, errno(%d)", writer.path, errno);
}

bool write_record(const TongItem& item) {
  const int fd = days_file();
  if (fd < 0) return false;
  ssize_t result = 0;
  do result = write(fd, item.record, static_cast<std::size_t>(item.size));
  while (result < 0 && errno == EINTR);
  if (result == item.size) return true;

  const int error = result < 0 ? errno : ENOSPC;
  if (result > 0) cut_back(fd, result);
  report_write_error(fd, result);
  VARN_LOG_LIMITED("<!> tong log write error, %s, errno(%d) : %s", writer.path, error,
                   std::strerror(error));
  return false;
}

void* th_job(void*) {
  for (;;) {
    const int order = writer.order.load();
    if (order == kEndNow) break;
    const QueItem* const queued = get_deffered_que();
    if (queued == nullptr) {
      if (order == kWriteRest) break;
      set_idle(0, kIdleUs);
      continue;
    }
    if (queued->kind == kTongItem) {
      std::memcpy(&writer.item, queued->payload, sizeof writer.item);
      release_record(writer.item, write_record(writer.item));
    }
    writer.turns.fetch_add(1);
  }
  close_file(writer.file);
  writer.ended.store(true);
  return nullptr;
}

// ---- Start and stop ----

// Signals are for the host's threads, but for those that a fault of the writer's own would raise.
int create_th_job() {
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigdelset(&blocked, fault);
  pthread_attr_t attributes;
  if (const int rc = pthread_attr_init(&attributes); rc != 0) return rc;
  pthread_attr_setstacksize(&attributes, kStackBytes);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  const int rc = pthread_create(&writer.th, &attributes, th_job, nullptr);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  return rc;
}

void tell(Order order) {
  pthread_mutex_lock(&idle_lock);
  writer.order.store(order);
  pthread_cond_signal(&idle_cond);
  pthread_mutex_unlock(&idle_lock);
}

// Whether the writer ended within the time; at once not when it does nothing for `stall_ms`.
bool wait_for_end(int milliseconds, int stall_ms) {
  std::uint32_t turns = writer.turns.load();
  for (int stalled = 0; !writer.ended.load(); --milliseconds) {
    if (milliseconds <= 0 || stalled >= stall_ms) return false;
    usleep(1000);
    const std::uint32_t before = turns;
    turns = writer.turns.load();
    stalled = turns == before ? stalled + 1 : 0;
  }
  return true;
}

void th_join_thread() {
  if (pthread_join(writer.th, nullptr) == 0)
    log_printf("(I) completed join main_thread");
  else
    log_printf("<!> cannot join main_thread.");
  writer.is_there = false;
}

}  // namespace

void start_th_job() {
  writer.order.store(kRun);
  writer.ended.store(false);
  writer.date[0] = '\0';
  const int rc = create_th_job();
  writer.is_there = rc == 0;
  if (rc == 0) {
    pthread_setname_np(writer.th, "varn_tong");
    return;
  }
  log_printf("<!> pthread_create error, errno(%d) : %s", rc, std::strerror(rc));
  refuse_telegrams();
}

void stop_th_job() {
  refuse_telegrams();
  if (writer.is_there) {
    tell(kWriteRest);
    bool ended = wait_for_end(kStopMs, kStallMs);
    if (!ended) {
      tell(kEndNow);
      ended = wait_for_end(kLastTurnMs, kLastTurnMs);
    }
    if (!ended) {
      log_printf("<!> the tong log's writer is stuck, %u telegrams are left behind",
                 get_deffered_queueing());
      return;
    }
    th_join_thread();
  }
  drop_queued_telegrams();
}

bool has_th_job_ended() {
  if (!writer.is_there) return true;
  if (!wait_for_end(kOldWriterMs, kOldWriterMs)) {
    log_printf("<!> the tong log's writer of the last start is still stuck");
    return false;
  }
  th_join_thread();
  return true;
}

void forget_th_job() {
  writer.is_there = false;
  pthread_mutex_init(&idle_lock, nullptr);
  pthread_cond_init(&idle_cond, nullptr);
  close_file(writer.file);
}

}  // namespace varn
