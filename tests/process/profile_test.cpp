// The instrumentation hooks and the names of functions. The tests call the hooks as compiled code
// would.
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <thread>

#include "process/calls.h"

namespace {
thread_local bool clock_calls_back = false;
}  // namespace

// Takes the place of the C library's for the agent too: it calls a hook, as an instrumented
// function that the agent reaches would.
extern "C" [[gnu::visibility("default")]] int gettimeofday(timeval* tv, void*) noexcept {
  if (clock_calls_back) {
    __cyg_profile_func_enter(tv, nullptr);
    __cyg_profile_func_exit(tv, nullptr);
  }
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  *tv = {.tv_sec = now.tv_sec, .tv_usec = now.tv_nsec / 1000};
  return 0;
}

namespace varn::test {
namespace {

void* address(std::uint64_t number) { return reinterpret_cast<void*>(number); }
void enter(std::uint64_t number) { __cyg_profile_func_enter(address(number), nullptr); }
void leave(std::uint64_t number) { __cyg_profile_func_exit(address(number), nullptr); }

struct Output {
  std::string out, err;
  bool operator==(const Output&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Output& output) {
  return stream << "out: " << output.out << "err: " << output.err;
}

template <typename Work>
Output output_of(Work work) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  work();
  std::fflush(stdout);
  return {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

class Profiling : public RecordTest {
 protected:
  // The function names of the calls recorded, in the order of their ends.
  std::vector<std::string> names_in(const std::vector<Record>& records) {
    std::vector<std::string> names;
    for (const Record& record : records) {
      const std::string text = text_of(record, kCallBody.back());
      const std::size_t at = text.find("[DYCALL][");
      EXPECT_NE(at, std::string::npos) << text;
      names.push_back(text.substr(at + 9, text.find(" at ", at) - at - 9));
    }
    return names;
  }
};

TEST_F(Profiling, PrintsTheCallTreeBeforeTheStartAndWhenNothingIsNamed) {
  collector.environment["VARN_CONSOLE"] = "on";
  EXPECT_TRUE(collector.run([] {
    TRAN_ADD_PROFILE(0x1234, "outer");
    TRAN_ADD_PROFILE(0x1234, "another name");
    TRAN_ADD_PROFILE(0x5678, nullptr);
    TRAN_DEL_PROFILE(0x9999);
    const auto calls = [] {
      enter(0x1234);
      enter(0x5678);
      leave(0x5678);
      leave(0x1234);
    };
    EXPECT_EQ(output_of(calls), (Output{"0x5678         |   } /* ? */\n"
                                        "0x1234         | } /* outer */\n",
                                        "0x1234         | outer() {\n"
                                        "0x5678         |   ?() {\n"}));
    TRAN_DEL_PROFILE(0x1234);
    EXPECT_EQ(output_of([] { enter(0x1234); }).err, "0x1234         | ?() {\n");
    EXPECT_EQ(output_of([] { leave(0x1234); }).out, "0x1234         | } /* ? */\n");
    TRAN_ADD_PROFILE(0x1234, "new");
    EXPECT_EQ(output_of([] { enter(0x1234); }).err, "0x1234         | new() {\n");
  }));
}

TEST_F(Profiling, EveryFunctionInsideAServiceIsACall) {
  const auto records = trace([&] {
    TRAN_ADD_PROFILE(1, "transfer");
    enter(1);
    leave(1);
    ASSERT_TRUE(is_sent(start({.gid = "GID", .svc_id = "SVC"}, -1)));
    collector.read_all();
    errno = E2BIG;
    EXPECT_EQ(output_of([] {
                enter(1);
                enter(2);
                leave(2);
                leave(1);
              }),
              Output{});
    EXPECT_EQ(errno, E2BIG);
    ASSERT_EQ(TRAN_DONE(), 0);
    enter(1);
    leave(1);
  });
  EXPECT_EQ(names_in(records), (std::vector<std::string>{"?", "transfer"}));
}

TEST_F(Profiling, HookInsideAHookDoesNothing) {
  const auto records = trace([&] {
    ASSERT_TRUE(is_sent(start({.gid = "GID", .svc_id = "SVC"}, -1)));
    collector.read_all();
    clock_calls_back = true;
    enter(1);
    leave(1);
    clock_calls_back = false;
    const PTRC_HASH_ENT* const own = collector.entries_of(getpid()).front();
    EXPECT_EQ(own->call_cnt, 1);
    EXPECT_EQ(own->call_top, 0);
  });
  EXPECT_EQ(names_in(records), std::vector<std::string>{"?"});
}

TEST_F(Profiling, NamesComeAndGoWhileThreadsAreInsideHooks) {
  collector.environment["VARN_THREAD_ID"] = "kernel";
  EXPECT_TRUE(collector.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    constexpr std::uint64_t kFunctions = 40;  // more than the table's first buckets
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int n = 0; n < 3; ++n)
      threads.emplace_back([&done] {
        EXPECT_TRUE(is_documented(start({.gid = "GID", .svc_id = "SVC"}, -1)));
        while (!done) {
          for (std::uint64_t i = 1; i <= kFunctions; ++i) enter(i);
          for (std::uint64_t i = kFunctions; i >= 1; --i) leave(i);
        }
      });
    for (int round = 0; round < 5; ++round) {
      for (std::uint64_t i = 1; i <= kFunctions; ++i)
        TRAN_ADD_PROFILE(i, ("function number " + std::to_string(i)).c_str());
      for (std::uint64_t i = 1; i <= kFunctions; ++i) TRAN_DEL_PROFILE(i);
    }
    done = true;
    for (std::thread& thread : threads) thread.join();
  }));
}

TEST_F(Profiling, ForkedChildHasTheNamesAndMayChangeThem) {
  collector.environment["VARN_CONSOLE"] = "on";
  EXPECT_TRUE(collector.run([] {
    TRAN_ADD_PROFILE(1, "one");
    ChildProcess child([] {
      TRAN_ADD_PROFILE(2, "two");
      TRAN_DEL_PROFILE(1);
      EXPECT_EQ(output_of([] { enter(2); }).err, "0x2            | two() {\n");
      EXPECT_EQ(output_of([] { leave(1); }).out, "0x1            | } /* ? */\n");
    });
    EXPECT_TRUE(child.wait());
    EXPECT_EQ(output_of([] { enter(1); }).err, "0x1            | one() {\n");
  }));
}

}  // namespace
}  // namespace varn::test
