// The whole-telegram log: the writer's file under a clock and a disk of the tests' own, and the
// writer as a guest of its process.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <set>
#include <thread>

#include "process/calls.h"

namespace {

std::atomic<std::int64_t> fake_us{0};  // 0: the system's clock
std::atomic<long> disk_room{-1};       // bytes that still fit; negative: any number
std::atomic<bool> disk_is_stalled{false};

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Records, not the log's lines, which are shorter.
bool is_record(std::size_t size) {
  char name[16] = "";
  return size > 512 && pthread_getname_np(pthread_self(), name, sizeof name) == 0 &&
         std::strcmp(name, "varn_tong") == 0;
}

}  // namespace

extern "C" {
[[gnu::visibility("default")]] int gettimeofday(timeval* tv, void*) noexcept {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const std::int64_t us = fake_us;
  *tv = us != 0 ? timeval{us / 1'000'000, us % 1'000'000} : timeval{now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

[[gnu::visibility("default")]] time_t time(time_t* place) noexcept {
  timeval tv;
  gettimeofday(&tv, nullptr);
  if (place != nullptr) *place = tv.tv_sec;
  return tv.tv_sec;
}

[[gnu::visibility("default")]] ssize_t write(int fd, const void* bytes, std::size_t size) {
  static const auto real = next<ssize_t(int, const void*, std::size_t)>("write");
  if (!is_record(size)) return real(fd, bytes, size);
  while (disk_is_stalled) usleep(500);
  const long room = disk_room;
  if (room < 0) return real(fd, bytes, size);
  const std::size_t fits = std::min(size, static_cast<std::size_t>(room));
  disk_room = room - static_cast<long>(fits);
  if (fits != 0) return real(fd, bytes, fits);
  errno = ENOSPC;
  return -1;
}
}

namespace varn::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kHead = 68;

std::string gid_of(int n) {
  const std::string digits = std::to_string(n);
  return "GID" + std::string(27 - digits.size(), '0') + digits;
}

std::string telegram(int n, std::size_t size = 600) {
  return std::string(9, 'h') + gid_of(n) + std::string(size - 39, 'x');
}

int startx(const std::string& sttl, const char* svc_id = kService, int std_layout = 1) {
  return TRAN_STARTX(-1, nullptr, 0, nullptr, 0, kGidA, -1, svc_id, -1, sttl.data(),
                     static_cast<int>(sttl.size()), std_layout, 0);
}
int endx(const std::string& sttl, int sttl_len) {
  return TRAN_ENDX(-1, nullptr, 0, nullptr, 0, kGidA, -1, kService, -1, sttl.data(), sttl_len, 1,
                   0);
}

int writers() {
  int count = 0;
  for (const auto& task : fs::directory_iterator("/proc/self/task"))
    count += read_file(task.path() / "comm") == "varn_tong\n";
  return count;
}

class Tong : public testing::Test {
 protected:
  Tong() {
    fs::create_directory(dir_);
    collector_.set_key(kTongLogHome, dir_.string());
    collector_.environment["TZ"] = "UTC";
    collector_.que_info().tong_log_flag = '1';
    collector_.que_info().log_flag_set = 0;  // the telegrams alone: calls return 100
  }

  // The calling process's file.
  fs::path file(const char* date) const {
    const std::string name = std::string(program_invocation_short_name).substr(0, 15);
    return dir_ /
           ("tong_log_" + std::string(date) + "_" + name + "_" + std::to_string(getpid()) + ".dat");
  }
  std::vector<fs::path> files() const {
    return {fs::directory_iterator(dir_), fs::directory_iterator()};
  }

  // The GIDs of a file's records, of the one file if there is one, which are to be whole but for a
  // torn last one where that is allowed.
  std::vector<std::string> gids(fs::path path = {}, bool may_be_torn = false) const {
    const auto all = files();
    if (path.empty() && !all.empty()) path = all[0];
    const std::string content = fs::exists(path) ? read_file(path) : "";
    std::vector<std::string> found;
    for (std::size_t at = 0; at < content.size();) {
      const std::size_t size =
          at + kHead <= content.size() ? std::stoul(content.substr(at + 62, 6)) : 0;
      const std::size_t end = at + kHead + size + 1;
      if (end > content.size() && may_be_torn) break;
      EXPECT_TRUE(end <= content.size() && content[end - 1] == '\n') << "torn at " << at;
      if (end > content.size()) break;
      EXPECT_EQ(content.substr(at, 30), content.substr(at + kHead + 9, 30));
      found.push_back(content.substr(at, 30));
      at = end;
    }
    return found;
  }
  static std::vector<std::string> gids_of(const std::vector<int>& numbers) {
    std::vector<std::string> gids;
    for (const int n : numbers) gids.push_back(gid_of(n));
    return gids;
  }
  bool writes(std::size_t records) const {
    return wait_until([&] { return gids({}, true).size() == records; });
  }

  // In a traced process, started.
  void trace(const std::function<void()>& body) {
    EXPECT_TRUE(collector_.run([&] {
      tzset();
      ASSERT_EQ(TRAN_INIT(), 0);
      body();
    }));
  }

  FakeCollector collector_;
  fs::path dir_ = collector_.home() / "tong";
};

TEST_F(Tong, ATelegramIsARecordInTheFileOfItsDayNameAndProcess) {
  trace([&] {
    umask(077);
    fake_us = 1'700'000'000'000'042;
    char host[256];
    gethostname(host, sizeof host);
    const std::string zeros = telegram(2, 5000).replace(700, 3, 3, '\0');
    const std::string longest = telegram(3, 999'999);
    errno = 42;
    EXPECT_EQ(startx(telegram(1)), 100);
    EXPECT_EQ(endx(zeros, 5000), 100);
    EXPECT_EQ(endx(longest, -1), 100);
    EXPECT_EQ(endx(longest + "x", 1'000'000), 100);
    EXPECT_EQ(errno, 42);
    EXPECT_EQ(TRAN_DONE(), 0);
    const std::string head = "1700000000000042" + padded(std::string(host).substr(0, 15), 15);
    EXPECT_TRUE(read_file(file("20231114")) == gid_of(1) + head + "S000600" + telegram(1) + "\n" +
                                                   gid_of(2) + head + "F005000" + zeros + "\n" +
                                                   gid_of(3) + head + "F999999" + longest + "\n");
    EXPECT_EQ(files().size(), 1U);
    EXPECT_EQ(fs::status(file("20231114")).permissions(), fs::perms(0666));
  });
  EXPECT_TRUE(collector_.logged("<!> a telegram of over 999999 bytes is not logged"));
  EXPECT_TRUE(collector_.logged("(I) tong log: 3 written, 1 dropped"));
}

TEST_F(Tong, SomeTelegramsAreNotLoggedAndShortOnesAreRefused) {
  trace([&] {
    for (const char* const svc_id : {"CLH_A", "SPFMIPPR1"})
      EXPECT_NE(startx(telegram(1), svc_id), 124) << svc_id;
    EXPECT_NE(startx(std::string(400, '\0'), kService, 0), 124) << "the fixed layout";
    EXPECT_EQ(startx(telegram(1, 511)), 124);
    EXPECT_EQ(endx("ABCDEFGHIJKL", -1), 124);
    collector_.que_info().tong_log_flag = '0';
    EXPECT_NE(startx(telegram(1, 511)), 124);
    startx(telegram(1));
    EXPECT_EQ(TRAN_DONE(), 0);
  });
  EXPECT_TRUE(files().empty());
  EXPECT_FALSE(collector_.logged("tong log:"));
  EXPECT_EQ(collector_.count_logged(euc_kr("통전문 길이 체크 오류(최소 길이(512)보다 작음, ")), 2);
  const std::string shown = telegram(1, 511);
  EXPECT_TRUE(collector_.logged(">> TRAN_START_API [" + shown + "] "));
  EXPECT_TRUE(collector_.logged(euc_kr("511 byte) : 내용|") + shown + "|"));
  EXPECT_TRUE(collector_.logged(">> TRAN_END_API [ABCDEFGHI] "));
  EXPECT_TRUE(collector_.logged(euc_kr("12 byte) : 내용|ABCDEFGHIJKL|")));
}

TEST_F(Tong, RecordsWrittenAfterMidnightGoToTheNewDaysFile) {
  trace([&] {
    fake_us = 1'709'251'199'000'000;  // the last second of February 29
    startx(telegram(1));
    EXPECT_TRUE(writes(1));
    fake_us += 1'000'000;
    for (const int n : {2, 3}) startx(telegram(n));
    EXPECT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(gids(file("20240229")), gids_of({1}));
    EXPECT_EQ(gids(file("20240301")), gids_of({2, 3}));
  });
}

TEST_F(Tong, ADirectoryThatComesLaterIsFound) {
  fs::remove(dir_);
  trace([&] {
    startx(telegram(1));
    EXPECT_TRUE(wait_until([&] { return collector_.logged("<!> tong log open error, "); }));
    fs::create_directory(dir_);
    startx(telegram(2));
    EXPECT_EQ(TRAN_DONE(), 0);
  });
  EXPECT_EQ(gids(), gids_of({2}));
  EXPECT_TRUE(collector_.logged("(I) tong log: 1 written, 1 dropped"));
}

TEST_F(Tong, OnAFullDiskARecordIsWholeOrAbsent) {
  collector_.environment["VARN_CONSOLE"] = "on";
  const fs::path console = collector_.home() / "stderr";
  trace([&] {
    std::freopen(console.c_str(), "w", stderr);
    fake_us = 1'700'000'000'000'000;  // one second
    disk_room = 3 * 669 + 100;
    for (const int n : {1, 2, 3, 4, 5}) startx(telegram(n));
    EXPECT_TRUE(
        wait_until([&] { return collector_.count_logged("<!> tong log write error") == 2; }));
    disk_room = -1;
    startx(telegram(6));
    EXPECT_EQ(TRAN_DONE(), 0);
    const std::string told = read_file(console);
    EXPECT_TRUE(told.starts_with("[Quorlen] TONG_LOG fwrite error 100 [fd:")) << told;
    EXPECT_TRUE(told.ends_with(", " + file("20231114").string() + "]\n")) << told;
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1);
  });
  EXPECT_EQ(gids(), gids_of({1, 2, 3, 6}));
  EXPECT_TRUE(collector_.logged("(I) tong log: 4 written, 2 dropped"));
}

TEST_F(Tong, AStalledDiskCostsTelegramsBeyondTheBudgetAndHoldsNobodyUp) {
  collector_.environment["VARN_TONG_BUDGET_MB"] = "1";
  trace([&] {
    startx(telegram(1));  // opens the file, from which failures are counted
    EXPECT_TRUE(writes(1));
    disk_is_stalled = true;
    for (int n = 2; n < 117; ++n) startx(telegram(n, 100'000));  // ten fit
    EXPECT_TRUE(wait_until([&] { return collector_.count_logged("put_deffered_que fail") == 2; }));
    EXPECT_TRUE(collector_.logged("<!> put_deffered_que fail.(cnt 1) [tid:-1]."));
    EXPECT_TRUE(collector_.logged("<!> put_deffered_que fail.(cnt 100) [tid:-1]."));
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(TRAN_DONE(), 0);
    EXPECT_TRUE(collector_.logged("(I) tong log: 1 written, 114 dropped")) << "one is under way";
    EXPECT_EQ(TRAN_INIT(), 103) << "the old writer is still there";
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 2s);
    EXPECT_EQ(writers(), 1);
    disk_is_stalled = false;
    EXPECT_TRUE(wait_until([] { return TRAN_INIT() == 0; }));
    EXPECT_EQ(writers(), 1);
    for (int n = 200; n < 210; ++n) startx(telegram(n, 100'000));  // the budget is whole again
    EXPECT_EQ(TRAN_DONE(), 0);
  });
  EXPECT_EQ(gids(), gids_of({1, 2, 200, 201, 202, 203, 204, 205, 206, 207, 208, 209}));
  EXPECT_TRUE(collector_.logged("(I) tong log: 10 written, 0 dropped"));
}

// Whatever the disk does: it stalls, and it is full in the middle of a record, again and again.
TEST_F(Tong, EachTelegramIsInTheFileOrCountedAsDropped) {
  constexpr int kThreads = 4, kEach = 12'500;
  collector_.environment["VARN_TONG_BUDGET_MB"] = "4";
  for (int round = std::max(1, rounds(2, 50)); round > 0; --round) {
    trace([&] {
      fake_us = 1'700'000'000'000'000;
      std::atomic<bool> all_offered = false;
      std::thread disk([&] {
        for (int n = 0; !all_offered; ++n) {
          disk_is_stalled = n % 3 == 1;
          disk_room = n % 3 == 2 ? n % 5000 : -1;
          usleep(3000);
        }
        disk_is_stalled = false;
        disk_room = -1;
      });
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([=] {
          for (int n = 0; n < kEach; ++n) {
            startx(telegram(t * kEach + n, 600 + n % 1400));
            if (n % 5 == 0) usleep(500);  // the writer sleeps a third of a second at times
          }
        });
      for (std::thread& thread : threads) thread.join();
      all_offered = true;
      disk.join();
      EXPECT_EQ(TRAN_DONE(), 0);
    });
    const std::vector<std::string> found = gids();
    const int dropped = kThreads * kEach - static_cast<int>(found.size());
    EXPECT_EQ(std::set<std::string>(found.begin(), found.end()).size(), found.size());
    EXPECT_GT(dropped, 0);
    EXPECT_GT(found.size(), 0U);
    RecordProperty("dropped", dropped);
    const std::string told = "(I) tong log: " + std::to_string(found.size()) + " written, " +
                             std::to_string(dropped) + " dropped";
    EXPECT_TRUE(collector_.logged(told)) << told;
    for (const fs::path& path : files()) fs::remove(path);
  }
}

TEST_F(Tong, ABudgetThatIsNoNumberInRangeIsToldAndTheUsualOneHolds) {
  for (const char* const value : {"", "0", "1048577", "1MB"}) {
    collector_.environment["VARN_TONG_BUDGET_MB"] = value;
    trace([&] {
      startx(telegram(1));
      EXPECT_EQ(TRAN_DONE(), 0);
      EXPECT_EQ(gids(), gids_of({1})) << value;
      for (const fs::path& path : files()) fs::remove(path);
    });
  }
  EXPECT_EQ(collector_.count_logged("<!> VARN_TONG_BUDGET_MB is not a number from 1 to 1048576"),
            4);
}

TEST_F(Tong, ReleasesAndNewStartsLoseNothingWhileManyThreadsCall) {
  constexpr int kCycles = 8, kThreads = 4, kEach = 250;
  trace([&] {
    EXPECT_EQ(writers(), 1);
    const auto begun = std::chrono::steady_clock::now();
    for (int cycle = 0; cycle < kCycles; ++cycle) {
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([=] {
          for (int n = 0; n < kEach; ++n) startx(telegram((t * kCycles + cycle) * kEach + n));
        });
      for (std::thread& thread : threads) thread.join();
      EXPECT_EQ(TRAN_DONE(), 0);
      EXPECT_EQ(writers(), 0);
      ASSERT_EQ(TRAN_INIT(), 0);
      EXPECT_EQ(writers(), 1);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begun, kCycles * 250ms)
        << "an idle writer is woken";
  });
  std::vector<std::string> found = gids();
  // Each thread's in its order, and by thread.
  std::stable_sort(found.begin(), found.end(), [](const std::string& a, const std::string& b) {
    constexpr int kOfThread = kCycles * kEach;
    return std::stoi(a.substr(3)) / kOfThread < std::stoi(b.substr(3)) / kOfThread;
  });
  std::vector<int> all(std::size_t{kCycles * kThreads * kEach});
  for (std::size_t n = 0; n < all.size(); ++n) all[n] = static_cast<int>(n);
  EXPECT_EQ(found, gids_of(all));
}

TEST_F(Tong, AForkedChildHasAFileOfItsOwnAndNothingOfItsParents) {
  collector_.environment["VARN_TONG_BUDGET_MB"] = "1";  // two of these
  trace([&] {
    startx(telegram(1));
    EXPECT_TRUE(writes(1));
    disk_is_stalled = true;
    for (const int n : {2, 3}) startx(telegram(n, 500'000));
    ChildProcess child([&] {
      for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
        std::error_code closed_meanwhile;
        EXPECT_NE(fs::read_symlink(fd, closed_meanwhile).parent_path(), dir_);
      }
      EXPECT_EQ(endx(telegram(4), 600), 103);
      EXPECT_EQ(TRAN_DONE(), 0);
      fake_us = 1'700'000'000'000'000;
      for (const int n : {5, 7}) {
        disk_is_stalled = true;
        EXPECT_EQ(startx(telegram(n, 500'000)), 100) << "starts the agent";
        EXPECT_EQ(startx(telegram(n + 1, 500'000)), 100);
        EXPECT_EQ(writers(), 1);
        disk_is_stalled = false;
        EXPECT_EQ(TRAN_DONE(), 0);
      }
      EXPECT_EQ(gids(file("20231114")), gids_of({5, 6, 7, 8}));
      fs::remove(file("20231114"));
    });
    EXPECT_TRUE(child.wait());
    disk_is_stalled = false;
    EXPECT_EQ(TRAN_DONE(), 0);
  });
  EXPECT_EQ(gids(), gids_of({1, 2, 3}));
}

TEST_F(Tong, AnExitWhileItWritesLeavesWholeRecords) {
  trace([&] {
    for (int n = 0; files().empty() || fs::file_size(files()[0]) < 1'000'000; ++n)
      startx(telegram(n, 2000));
    _exit(0);
  });
  EXPECT_GE(gids({}, true).size(), 400U);
}

TEST_F(Tong, TheWriterTakesNoSignalThatIsTheHosts) {
  trace([&] {
    startx(telegram(1));
    EXPECT_TRUE(writes(1));
    sigset_t signals;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    for (const int signal : {SIGTERM, SIGALRM, SIGCHLD, SIGRTMIN}) {
      kill(getpid(), signal);
      sigset_t awaited;
      sigemptyset(&awaited);
      sigaddset(&awaited, signal);
      const timespec second = {1, 0};
      EXPECT_EQ(sigtimedwait(&awaited, nullptr, &second), signal);
    }
  });
}

TEST_F(Tong, AHostThatClosesItsDescriptorsGetsNothingInItsFiles) {
  const fs::path hosts = collector_.home() / "hosts";
  trace([&] {
    startx(telegram(1));
    EXPECT_TRUE(writes(1));
    close_range(3, ~0U, 0);
    for (int i = 0; i < 40; ++i) open(hosts.c_str(), O_RDWR | O_CREAT | O_APPEND, 0600);
    startx(telegram(2));
    EXPECT_TRUE(writes(2));
    EXPECT_EQ(TRAN_DONE(), 0);
  });
  EXPECT_EQ(read_file(hosts), "");
  EXPECT_TRUE(collector_.logged("(I) tong log: 2 written, 0 dropped")) << "the agent's log is back";
}

}  // namespace
}  // namespace varn::test
