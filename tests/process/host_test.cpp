// What the host must not notice: files that are not what they seem, limits, closed readers.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <regex>
#include <thread>

#include "process/calls.h"

namespace varn::test {
namespace {

namespace fs = std::filesystem;

constexpr char kVictim[] = "the host's own\n";

std::string telegram() { return std::string(9, 'h') + kGidA + std::string(600, 'x'); }
int startx(const std::string& sttl) {
  return TRAN_STARTX(-1, nullptr, 0, nullptr, 0, kGidA, -1, kService, -1, sttl.data(),
                     static_cast<int>(sttl.size()), 1, 0);
}

struct Impostor {
  const char* name;
  void (*make)(const fs::path& place, const fs::path& victim);
};
constexpr Impostor kImpostors[] = {
    {"a link to another file",
     [](const fs::path& place, const fs::path& victim) { fs::create_symlink(victim, place); }},
    {"another file's second name",
     [](const fs::path& place, const fs::path& victim) { fs::create_hard_link(victim, place); }},
    {"a pipe", [](const fs::path& place, const fs::path&) { mkfifo(place.c_str(), 0666); }},
    {"a directory", [](const fs::path& place, const fs::path&) { fs::create_directory(place); }},
};

class Host : public testing::Test {
 protected:
  Host() {
    fs::create_directory(dir_);
    collector_.set_key(kTongLogHome, dir_.string());
    collector_.que_info().tong_log_flag = '1';
    write_file(victim_, kVictim);
  }

  FakeCollector collector_;
  fs::path dir_ = collector_.home() / "tong";
  fs::path victim_ = collector_.home() / "victim";
};

// The names hold a date, so each is learned from a run that is let do.
TEST_F(Host, IsNotHeldUpOrWrittenToByWhatStandsInAFilesPlace) {
  const auto trace = [&] {
    return collector_.run(
        [] {
          ASSERT_EQ(TRAN_INIT(), 0);
          EXPECT_TRUE(is_sent(startx(telegram())));
          EXPECT_EQ(end(-1) >= 0, true);
          EXPECT_EQ(TRAN_DONE(), 0);
        },
        5s);
  };
  ASSERT_TRUE(trace());
  const fs::path log = fs::directory_iterator(collector_.log_dir())->path();
  for (const Impostor& impostor : kImpostors) {
    SCOPED_TRACE(impostor.name);
    fs::remove_all(log);
    impostor.make(log, victim_);
    EXPECT_TRUE(trace());
    EXPECT_EQ(read_file(victim_), kVictim);
    fs::remove_all(log);
    fs::remove_all(dir_);
    fs::create_directory(dir_);

    EXPECT_TRUE(collector_.run(
        [&] {
          ASSERT_EQ(TRAN_INIT(), 0);
          const std::string own = std::regex_replace(
              "tong_log_DATE_NAME_" + std::to_string(getpid()) + ".dat", std::regex("NAME"),
              std::string(program_invocation_short_name).substr(0, 15));
          const std::time_t now = std::time(nullptr);
          char date[16];
          std::strftime(date, sizeof date, "%Y%m%d", std::localtime(&now));
          impostor.make(dir_ / std::regex_replace(own, std::regex("DATE"), date), victim_);
          EXPECT_TRUE(is_sent(startx(telegram())));
          EXPECT_TRUE(is_sent(end(-1)));
          EXPECT_EQ(TRAN_DONE(), 0);
        },
        5s));
    EXPECT_EQ(read_file(victim_), kVictim);
    EXPECT_TRUE(collector_.logged("(I) tong log: 0 written, 1 dropped"));
  }
}

TEST_F(Host, AnothersFileGetsNoTelegrams) {
  if (getuid() != 0) GTEST_SKIP() << "needs another user's id";
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(startx(telegram())));
    EXPECT_TRUE(wait_until([&] { return !fs::is_empty(dir_); }));
    const fs::path file = fs::directory_iterator(dir_)->path();
    EXPECT_TRUE(wait_until([&] { return fs::file_size(file) > 0; }));
    EXPECT_EQ(TRAN_DONE(), 0);
    fs::resize_file(file, 0);
    ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0);
    ASSERT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(startx(telegram())));
    EXPECT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(fs::file_size(file), 0U);
  }));
}

bool is_pending(int signal) {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, signal) == 1;
}

TEST_F(Host, NeitherALimitOnFilesNorAClosedConsoleEndsIt) {
  collector_.environment["VARN_CONSOLE"] = "on";
  EXPECT_TRUE(collector_.run([&] {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    for (const int console : {STDOUT_FILENO, STDERR_FILENO}) dup2(ends[1], console);
    ASSERT_EQ(TRAN_INIT(), 0) << "with its banner";
    rlimit limit = {fs::file_size(*fs::directory_iterator(collector_.log_dir())) + 10,
                    RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_TRUE(is_sent(startx(telegram())));
    __cyg_profile_func_enter(nullptr, nullptr);
    __cyg_profile_func_exit(nullptr, nullptr);
    EXPECT_TRUE(is_sent(end(-1)));
    EXPECT_EQ(TRAN_DONE(), 0) << "with its lines in the log";
    EXPECT_FALSE(is_pending(SIGXFSZ) || is_pending(SIGPIPE));
    limit.rlim_cur = RLIM_INFINITY;  // what the test itself leaves at its exit may be longer
    setrlimit(RLIMIT_FSIZE, &limit);
  }));
}

TEST_F(Host, AConsoleThatNobodyReadsDoesNotHoldItUp) {
  collector_.environment["VARN_CONSOLE"] = "on";
  EXPECT_TRUE(collector_.run([] {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    while (write(ends[1], "x", 1) == 1) {
    }
    fcntl(ends[1], F_SETFL, 0);
    const int console = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    const int started = TRAN_INIT();  // with a banner
    __cyg_profile_func_enter(nullptr, nullptr);
    dup2(console, STDOUT_FILENO);
    EXPECT_EQ(started, 0);
  }));
}

TEST_F(Host, TakesItsSettingsFromPlainFilesOfASensibleSize) {
  const fs::path place = collector_.home() / "settings";
  const auto expect_refused = [&](const char* what) {
    EXPECT_TRUE(collector_.run(
        [&] {
          setenv("TRAN_AGT_CFG_FILE", place.c_str(), 1);
          EXPECT_EQ(TRAN_INIT(), 103) << what;
        },
        5s));
    fs::remove_all(place);
  };
  fs::create_directory(place);
  expect_refused("a directory");
  mkfifo(place.c_str(), 0666);
  expect_refused("a pipe");
  write_file(place, read_file(collector_.environment.at("TRAN_AGT_CFG_FILE")) + "\n");
  fs::resize_file(place, (1 << 20) + 1);
  expect_refused("too large a file");
}

// Half a microsecond of the kernel's time each, less than a system call.
void expect_cheap_refusals(int thread, int code) {
  const auto system_us = [] {
    rusage usage = {};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_stime.tv_sec * 1'000'000 + usage.ru_stime.tv_usec;
  };
  const auto before = system_us();
  for (int i = 0; i < 100'000; ++i) ASSERT_EQ(event(thread), code);
  EXPECT_LT(system_us() - before, 50'000) << code;
}

TEST_F(Host, AThreadThatFindsNoContextOrEntryAsksTheKernelForNothing) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    TableStack& free_stack = collector_.ptrc_tbl().free_stack;
    const std::uint32_t free = std::exchange(free_stack.count, 0U);
    expect_cheap_refusals(9, 116);
    free_stack.count = free;
    constexpr int kOneBucket = 0x100;
    std::vector<std::jthread> holders;
    std::atomic<int> holding = 0;
    std::atomic<bool> may_end = false;
    for (int n = 1; n <= 10; ++n) {
      holders.emplace_back([&, n] {
        EXPECT_TRUE(wait_until([&] { return is_sent(event(7 + n * kOneBucket)); }));
        ++holding;
        wait_until([&] { return may_end.load(); });
      });
    }
    EXPECT_TRUE(wait_until([&] { return holding == 10; }));
    expect_cheap_refusals(7, 107);
    may_end = true;
    holders.clear();
    EXPECT_TRUE(wait_until([] { return is_sent(event(7)); }));
    EXPECT_EQ(TRAN_DONE(), 0);
  }));
}

}  // namespace
}  // namespace varn::test
