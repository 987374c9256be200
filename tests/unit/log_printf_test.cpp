#include "util/log_printf.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/support.h"

namespace varn::test {
namespace {

namespace fs = std::filesystem;

// The local day is moved by moving to another place: these two are 26 hours apart.
void go_east() { setenv("TZ", "EAST-14", 1), tzset(); }
void go_west() { setenv("TZ", "WEST+12", 1), tzset(); }

std::string today(const char* format) {
  const time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char text[64];
  std::strftime(text, sizeof text, format, &local);
  return text;
}

class Log : public testing::Test {
 protected:
  Log() {
    forget_log();
    go_west();
  }
  ~Log() override { forget_log(); }

  int open(unsigned mask = 0) { return open_log(dir_.path().c_str(), "title", mask); }
  fs::path todays_file() const { return dir_ / today("title-%Y-%m-%d-log"); }
  using Texts = std::vector<std::string>;
  static Texts texts_in(const fs::path& file) {
    Texts texts;
    for (const LogLine& line : parse_log(read_file(file))) texts.push_back(line.text);
    return texts;
  }

  TempDir dir_;
};

TEST_F(Log, ALineIsProcessIdStampAndMessageOf4095Characters) {
  EXPECT_LT(log_printf("early"), 1);
  ASSERT_EQ(open(), 0);
  std::string before;
  do {  // until the second did not change meanwhile
    before = today("(%%d) %m-%d %H:%M:%S  (I) value 7\n");
    fs::resize_file(todays_file(), 0);
    log_printf("(I) %s %d", "value", 7);
  } while (before != today("(%%d) %m-%d %H:%M:%S  (I) value 7\n"));
  EXPECT_EQ(read_file(todays_file()), before.replace(1, 2, std::to_string(getpid())));
  EXPECT_LT(log_printf("%s", ""), 1) << "an empty message is not written";
  log_printf("%s", std::string(5000, 'x').c_str());
  log_printf("next");
  close_log();
  EXPECT_LT(log_printf("late"), 1);
  EXPECT_EQ(texts_in(todays_file()), (Texts{"(I) value 7", std::string(4095, 'x'), "next"}));
}

TEST_F(Log, PermissionsAreThoseAskedForWhateverTheHostsMask) {
  umask(077);
  const auto permissions = [this] { return fs::status(todays_file()).permissions(); };
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(umask(077), 077U) << "the host's mask is the host's";
  EXPECT_EQ(permissions(), fs::perms(0666));
  fs::permissions(todays_file(), fs::perms(0600));
  close_log();
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(permissions(), fs::perms(0600)) << "of a new file only";
  close_log();
  fs::remove(todays_file());
  ASSERT_EQ(open(022), 0);
  EXPECT_EQ(permissions(), fs::perms(0644));
  go_east();
  log_printf("next day");
  EXPECT_EQ(permissions(), fs::perms(0666));
}

TEST_F(Log, ASecondOpenChangesNothing) {
  const TempDir other;
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(open_log(other.path().c_str(), "other", 0), 0);
  go_east();
  log_printf("two");
  EXPECT_EQ(texts_in(todays_file()), Texts{"two"});
  EXPECT_TRUE(fs::is_empty(other.path()));
  close_log();
  ASSERT_EQ(open_log(nullptr, "renamed", 0), 0) << "null keeps the directory";
  EXPECT_TRUE(fs::exists(dir_ / today("renamed-%Y-%m-%d-log")));
}

TEST_F(Log, WhatCannotBeOpenedIsTriedAgainTheNextDay) {
  const fs::path dir = dir_ / "late";
  EXPECT_EQ(open_log(dir.c_str(), "title", 0), -1);
  fs::create_directory(dir);
  EXPECT_LT(log_printf("dropped"), 1);
  go_east();
  EXPECT_GT(log_printf("one"), 0);
  fs::rename(dir, dir_ / "moved");
  go_west();
  log_printf("dropped");  // the new day has no file
  fs::rename(dir_ / "moved", dir);
  go_east();
  EXPECT_GT(log_printf("two"), 0);
  EXPECT_EQ(texts_in(dir / today("title-%Y-%m-%d-log")), (Texts{"one", "two"}));
}

TEST_F(Log, ThreadsLoseNoLineAndNoFileStaysOpenWhileTheDayChanges) {
  constexpr int kThreads = 4;
  constexpr int kLines = 2000;
  ASSERT_EQ(open(), 0);
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &running] {
      for (int i = 0; i < kLines; ++i) log_printf("%d-%d", t, i);
      --running;
    });
  for (bool east = true; running > 0; east = !east) {
    east ? go_east() : go_west();
    std::this_thread::yield();
  }
  for (std::thread& thread : threads) thread.join();
  std::multiset<std::string> written;
  int files = 0, open_files = 0;
  for (const auto& file : fs::directory_iterator(dir_.path())) {
    for (const std::string& text : texts_in(file)) written.insert(text);
    ++files;
  }
  EXPECT_EQ(files, 2) << "one a day";
  EXPECT_EQ(written.size(), std::size_t{kThreads * kLines});
  EXPECT_EQ(std::set(written.begin(), written.end()).size(), written.size());
  for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
    std::error_code closed_meanwhile;
    open_files += fs::read_symlink(fd, closed_meanwhile).string().starts_with(dir_.path().string());
  }
  EXPECT_EQ(open_files, 1);
}

TEST_F(Log, ARepeatedLineIsWrittenTenTimesASecondAndThenCounted) {
  static LogLimit limit;
  const auto repeat = [] {
    if (may_log(limit)) log_printf("again");
  };
  const auto next_second = [] {
    const time_t now = time(nullptr);
    EXPECT_TRUE(wait_until([now] { return time(nullptr) != now; }));
    return time(nullptr);
  };
  time_t begun;
  do {  // until all 25 fell into one second
    close_log();
    fs::remove(todays_file());
    ASSERT_EQ(open(), 0);
    begun = next_second();
    limit.suppressed = 0;
    for (int i = 0; i < 25; ++i) repeat();
  } while (time(nullptr) != begun);
  Texts expected(10, "again");
  EXPECT_EQ(texts_in(todays_file()), expected);
  next_second();
  repeat();
  expected.insert(expected.end(), {"(I) 15 more lines like the next one were left out", "again"});
  EXPECT_EQ(texts_in(todays_file()), expected);
}

}  // namespace
}  // namespace varn::test
