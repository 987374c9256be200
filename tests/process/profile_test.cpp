// The instrumentation hooks and the names of functions. The tests call the hooks as compiled code
// would.
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <thread>

#include "process/calls.h"

namespace {
thread_local bool clock_calls_back = false;
// Or the agent would ask only now and then.
[[maybe_unused]] const int each_time = setenv("VARN_CLOCK", "system", 1);
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

using Output = std::pair<std::string, std::string>;  // on standard error and on standard output

Output output_of(const std::function<void()>& work) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  work();
  std::fflush(stdout);
  return {testing::internal::GetCapturedStderr(), testing::internal::GetCapturedStdout()};
}

void call_nested(std::uint64_t outer, std::uint64_t inner) {
  enter(outer);
  enter(inner);
  leave(inner);
  leave(outer);
}

// The functions whose calls were recorded, in the order of their ends.
std::string names_in(const std::vector<Record>& records) {
  static const std::regex call(R"(.*\[DYCALL\]\[(.*) at .*)");
  std::string names;
  for (const Record& record : records)
    names += std::regex_replace(text_of(record, kCallBody.back()), call, "$1 ");
  return names;
}

using Profiling = RecordTest;

TEST_F(Profiling, PrintsTheCallTreeBeforeTheStartAndWhenNothingIsNamed) {
  collector.environment["VARN_CONSOLE"] = "on";
  EXPECT_TRUE(collector.run([] {
    TRAN_ADD_PROFILE(0x1234, "outer");
    TRAN_ADD_PROFILE(0x1234, "another name");
    TRAN_ADD_PROFILE(0x5678, nullptr);
    TRAN_DEL_PROFILE(0x9999);
    const Output tree = output_of([] { call_nested(0x1234, 0x5678); });
    EXPECT_EQ(tree, Output("0x1234         | outer() {\n"
                           "0x5678         |   ?() {\n",
                           "0x5678         |   } /* ? */\n"
                           "0x1234         | } /* outer */\n"));
    ChildProcess child([] {
      TRAN_DEL_PROFILE(0x1234);
      EXPECT_EQ(output_of([] { enter(0x1234); }).first, "0x1234         | ?() {\n");
      EXPECT_EQ(output_of([] { leave(0x1234); }).second, "0x1234         | } /* ? */\n");
      TRAN_ADD_PROFILE(0x1234, "new");
      EXPECT_EQ(output_of([] { enter(0x1234); }).first, "0x1234         | new() {\n");
    });
    EXPECT_TRUE(child.wait());
    EXPECT_EQ(output_of([] { enter(0x1234); }).first, "0x1234         | outer() {\n")
        << "as before";
  }));
}

TEST_F(Profiling, EveryFunctionInsideAServiceIsACall) {
  const auto records = trace([&] {
    TRAN_ADD_PROFILE(1, "transfer");
    call_nested(1, 2);
    ASSERT_TRUE(is_sent(start(-1)));
    collector.read_all();
    errno = E2BIG;
    EXPECT_EQ(output_of([] { call_nested(1, 2); }), Output());
    EXPECT_EQ(errno, E2BIG);
    ASSERT_EQ(TRAN_DONE(), 0);
    call_nested(1, 2);
  });
  EXPECT_EQ(names_in(records), "? transfer ");
}

TEST_F(Profiling, HookInsideAHookDoesNothing) {
  collector.environment["VARN_CONSOLE"] = "on";
  const auto records = trace([&] {
    ASSERT_TRUE(is_sent(start(-1)));
    collector.read_all();
    const auto call = [] {
      clock_calls_back = true;
      enter(1);
      leave(1);
      clock_calls_back = false;
    };
    EXPECT_EQ(output_of(call), Output("0x1            | ?() {\n", "0x1            | } /* ? */\n"));
    EXPECT_EQ(collector.entries_of(getpid()).front()->call_cnt, 1);
  });
  EXPECT_EQ(names_in(records), "? ");
}

TEST_F(Profiling, NamesComeAndGoWhileThreadsAreInsideHooks) {
  collector.environment["VARN_THREAD_ID"] = "kernel";
  EXPECT_TRUE(collector.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    constexpr std::uint64_t kFunctions = 40;  // more than the table's first buckets
    std::atomic<int> busy{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int n = 0; n < 3; ++n)
      threads.emplace_back([&] {
        EXPECT_TRUE(is_documented(start(-1)));
        for (++busy; !done;) {
          for (std::uint64_t i = 1; i <= kFunctions; ++i) enter(i);
          for (std::uint64_t i = kFunctions; i >= 1; --i) leave(i);
        }
      });
    EXPECT_TRUE(wait_until([&] { return busy == 3; }));
    for (int round = 0; round < 5; ++round) {
      for (std::uint64_t i = 1; i <= kFunctions; ++i)
        TRAN_ADD_PROFILE(i, ("function number " + std::to_string(i)).c_str());
      for (std::uint64_t i = 1; i <= kFunctions; ++i) TRAN_DEL_PROFILE(i);
    }
    done = true;
    for (std::thread& thread : threads) thread.join();
  }));
}

}  // namespace
}  // namespace varn::test
