// The agent as a guest: forks, signals, threads that call while it starts and stops, and calls made
// inside calls.
#include <dlfcn.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <future>
#include <set>
#include <thread>
#include <utility>

#include "process/calls.h"

namespace {
// Runs once inside the next send of the thread, that is inside a traced call.
thread_local const std::function<void()>* inside_next_send = nullptr;
}  // namespace

extern "C" [[gnu::visibility("default")]] long syscall(long number, ...) {
  using Syscall = long (*)(long, ...);
  static const auto real = reinterpret_cast<Syscall>(dlsym(RTLD_NEXT, "syscall"));
  if (number == SYS_msgsnd)
    if (const auto* const body = std::exchange(inside_next_send, nullptr)) (*body)();
  va_list arguments;
  va_start(arguments, number);
  long a[6];
  for (long& argument : a) argument = va_arg(arguments, long);
  va_end(arguments);
  return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

namespace varn::test {
namespace {

struct Lifecycle : testing::Test {
  FakeCollector collector_;
};

bool ends_well(pid_t child) {
  int status = -1;
  return wait_until([&] { return waitpid(child, &status, WNOHANG) == child; }) && status == 0;
}

// Threads that make every call again and again until they are told to stop.
class Hammer {
 public:
  explicit Hammer(int threads) {
    for (int i = 0; i < threads; ++i)
      threads_.emplace_back([this, i] {
        // Native threads, and ids of the caller's.
        for (const int tid = i % 2 == 0 ? -1 : 100 + i; !stop_;) {
          for (const auto& [name, result] : call_everything(tid)) {
            if (is_sent(result)) ++sent_;
            if (!is_documented(result)) ADD_FAILURE() << name << " returned " << result;
          }
        }
      });
  }
  ~Hammer() {
    stop_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  bool gets_through() const {
    return wait_until([this, before = sent_.load()] { return sent_ > before; });
  }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<long> sent_{0};
  std::vector<std::thread> threads_;
};

TEST_F(Lifecycle, AForkedChildIsNotStartedAndLeavesItsParentAlone) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    for (int n = 0; n < 10; ++n) ASSERT_TRUE(is_sent(event(256 * n + 7)));
    ASSERT_TRUE(is_sent(start(-1)));
    const auto parents = collector_.entries_of(getpid());
    ChildProcess child([&] {
      expect_everything_returns(103);
      EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 103);
      EXPECT_EQ(TRAN_DONE(), 0);
      EXPECT_EQ(TRAN_INIT(), 0);
      EXPECT_EQ(info(-1, nullptr), 123) << "the parent's service is not the child's";
      EXPECT_TRUE(is_sent(event(256 * 10 + 7))) << "the parent's threads take none of its room";
      EXPECT_EQ(collector_.entries_of(getpid()).size(), 3U) << "entries of its own";
      EXPECT_EQ(TRAN_DONE(), 0);
    });
    EXPECT_TRUE(child.wait());
    EXPECT_EQ(collector_.entries_of(getpid()), parents);
    EXPECT_EQ(parents[0]->tran_state, 'f');
    EXPECT_TRUE(is_sent(end(-1)));
    EXPECT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(parents[0]->tran_state, 'h');
    EXPECT_EQ(parents[0]->prev_tran_state, 'g');
  }));
}

TEST_F(Lifecycle, ACancelledThreadFinishesItsCallAndLeavesNoLock) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    std::thread([] {
      struct Cleanup {
        ~Cleanup() { EXPECT_TRUE(is_sent(event(-1))); }
      } cleanup;
      pthread_cancel(pthread_self());
      event(-1);  // claims a context, logs and sends, with the cancellation pending
      pthread_testcancel();
      ADD_FAILURE() << "it was not cancelled";
    }).join();
    std::thread([] { EXPECT_TRUE(is_sent(event(-1))); }).join();
    EXPECT_EQ(TRAN_DONE(), 0);
  }));
}

TEST_F(Lifecycle, ForksBesideBusyThreadsHaveNoLockLeftHeld) {
  const auto body = [&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    const Hammer hammer(3);
    for (int i = rounds(100, 40); i > 0; --i) {  // as many as the table has room for
      ASSERT_TRUE(hammer.gets_through());
      const pid_t child = fork();
      if (child == 0) {
        alarm(10);  // ends it if it hangs
        const bool refused = check_gvar('_') == 103;
        const bool started = TRAN_INIT() == 0 && check_gvar('_') == 0 && is_documented(event(-1));
        _exit(refused && started && TRAN_DONE() == 0 ? 0 : 1);
      }
      EXPECT_TRUE(ends_well(child));
    }
    EXPECT_TRUE(hammer.gets_through());
  };
  EXPECT_TRUE(collector_.run(body, kDeadlineOfRounds));
}

TEST_F(Lifecycle, OfManyStartsWhileThreadsCallOneIsTheStartAndAReleaseEndsIt) {
  const auto body = [&] {
    collector_.que_info().que_cnt = 17;
    ASSERT_EQ(TRAN_INIT(), 103);
    EXPECT_EQ(TRAN_DONE(), 0);
    collector_.que_info().que_cnt = 4;
    ASSERT_EQ(TRAN_INIT(), 0);
    for (int tid = 1; tid <= 24; ++tid) EXPECT_TRUE(is_sent(event(tid))) << "not whole at " << tid;
    EXPECT_EQ(TRAN_DONE(), 0);
    const Hammer hammer(4);
    for (int cycle = rounds(100, 100); cycle > 0; --cycle) {
      std::vector<std::future<int>> starts;
      for (int i = 0; i < 4; ++i) starts.push_back(std::async(std::launch::async, TRAN_INIT));
      std::multiset<int> results;
      for (auto& start : starts) results.insert(start.get());
      EXPECT_EQ(results, (std::multiset{0, 104, 104, 104})) << cycle;
      EXPECT_TRUE(hammer.gets_through()) << cycle;
      EXPECT_EQ(TRAN_DONE(), 0) << cycle;
      EXPECT_EQ(check_gvar('_'), 103);
      collector_.read_all();
    }
    ASSERT_EQ(TRAN_INIT(), 0);  // and the process ends without a release
  };
  EXPECT_TRUE(collector_.run(body, kDeadlineOfRounds));
}

TEST_F(Lifecycle, ContextsAreTakenBackWhileThreadsCall) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    const Hammer hammer(4);
    for (int i = 0; i < 60; ++i) {
      std::thread([&] {
        for (const int tid : {-1, 101 + 256 * (1 + i % 12)})  // in a bucket of the others
          for (const auto& [name, result] : call_everything(tid))
            EXPECT_TRUE(is_documented(result)) << name << " returned " << result;
      }).join();
      const auto entries = collector_.entries_of(getpid());
      entries[static_cast<std::size_t>(i) % entries.size()]->ent_status = kEntReleaseRequested;
      if (PTRC_HASH_ENT* const busy = collector_.entry_of(getpid(), 101); busy != nullptr)
        busy->ent_status = kEntReleaseRequested;
    }
    collector_.read_all();
    EXPECT_TRUE(hammer.gets_through());
  }));
  EXPECT_TRUE(collector_.logged("(thread killed, "));
}

// A thread whose call stays inside the agent until it is told to leave.
class LingeringCall {
 public:
  explicit LingeringCall(int tid)
      : thread_([this, tid] {
          const std::function<void()> linger = [this] {
            inside_ = true;
            wait_until([this] { return leave_.load(); });
          };
          inside_next_send = &linger;
          EXPECT_TRUE(is_sent(event(tid))) << "a call under way completes";
        }) {
    EXPECT_TRUE(wait_until([this] { return inside_.load(); }));
  }
  void leave() {
    leave_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> inside_{false};
  std::atomic<bool> leave_{false};
  std::thread thread_;
};

TEST_F(Lifecycle, NeitherItsContextNorMemoryIsPulledFromUnderACall) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    LingeringCall first(101);
    PTRC_HASH_ENT& entry = *collector_.entry_of(getpid(), 101);
    entry.ent_status = kEntReleaseRequested;
    EXPECT_TRUE(is_sent(event(101 + 256)));
    EXPECT_EQ(entry.ent_status, kEntReleaseRequested) << "the thread still works on it";
    first.leave();
    EXPECT_TRUE(is_sent(event(101 + 512)));
    EXPECT_EQ(entry.ent_status, kEntCleared);

    LingeringCall second(-1);
    EXPECT_EQ(TRAN_DONE(), -1);
    EXPECT_EQ(check_gvar('_'), 103) << "new calls are refused all the same";
    second.leave();
    EXPECT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(event(-1)));
    EXPECT_EQ(TRAN_DONE(), 0);
  }));
  EXPECT_EQ(collector_.count_logged(">> TRAN_DONE() Fail..."), 1);
}

TEST_F(Lifecycle, ACallInsideACallTouchesNothingButAServiceTimeOutCounts) {
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    ASSERT_TRUE(is_sent(start(-1)));
    const std::function<void()> call_again = [] {
      errno = 42;
      expect_everything_returns(105);
      expect_everything_returns(105, 77);
      EXPECT_EQ(TRAN_INIT(), 105);
      EXPECT_EQ(TRAN_DONE(), -1);
      EXPECT_EQ(errno, 42);
    };
    inside_next_send = &call_again;
    EXPECT_TRUE(is_sent(info(-1, nullptr, "the outer call")));
    EXPECT_EQ(inside_next_send, nullptr) << "it was not run";
    EXPECT_TRUE(is_sent(end(-1)));
    EXPECT_EQ(end(-1), 123);

    const std::function<void()> time_out = [] { EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 105); };
    inside_next_send = &time_out;
    EXPECT_TRUE(is_sent(event(-1)));
    expect_everything_returns(126);
    EXPECT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(event(-1))) << "until the next start";
  }));
  const std::vector<Record> infos = collector_.read_all('I');
  ASSERT_FALSE(infos.empty());
  EXPECT_EQ(body_field(infos[0], "message"), "the outer call");
}

TEST_F(Lifecycle, AForkInsideACallReturnsIntoIt) {
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    pid_t child = -1;
    const std::function<void()> fork_inside = [&child] { child = fork(); };
    inside_next_send = &fork_inside;
    EXPECT_TRUE(is_documented(event(-1)));
    if (child == 0) _exit(check_gvar('_') == 103 && TRAN_INIT() == 0 ? 0 : 1);
    EXPECT_TRUE(ends_well(child));
    EXPECT_TRUE(is_sent(event(-1)));
  }));
}

// Whose threads the agent knew by the names of their functions, before the fork and the start.
TEST_F(Lifecycle, AWorkerForkedBeforeTheStartIsAThreadOfItsOwn) {
  collector_.environment["VARN_THREAD_ID"] = "kernel";
  EXPECT_TRUE(collector_.run([&] {
    TRAN_ADD_PROFILE(1, "main");
    const pid_t worker = fork();
    if (worker == 0) {
      const bool traces = TRAN_INIT() == 0 && is_sent(event(-1));
      const bool is_known =
          collector_.entry_of(getpid(), static_cast<unsigned>(gettid())) != nullptr;
      _exit(traces && is_known && TRAN_DONE() == 0 ? 0 : 1);
    }
    EXPECT_TRUE(ends_well(worker));
  }));
}

TEST_F(Lifecycle, SignalHandlersMayCallAtAnyMoment) {
  static std::atomic<int> handled{0}, inside_a_call{0}, odd_results{0};
  collector_.que_info().log_flag_set = get_log_flag_set("SEV");  // without information records
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    struct sigaction action = {};
    action.sa_handler = [](int) {
      const int interrupted_errno = std::exchange(errno, 77);
      const int result = info(-1);
      if (errno != 77 || (result != 100 && result != 105)) ++odd_results;
      if (result == 105) ++inside_a_call;
      ++handled;
      errno = interrupted_errno;
    };
    sigaction(SIGALRM, &action, nullptr);
    const itimerval every_ms = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &every_ms, nullptr);
    // The thread sanitizer puts handlers off until the thread waits for something.
    constexpr int kInside = kIsThreadSanitized ? 0 : 20;
    EXPECT_TRUE(wait_until([] {
      for (int i = 0; i < 200; ++i) {
        errno = 33;
        const int started = start(-1);
        const int ended = end(-1);
        EXPECT_TRUE((is_sent(started) || started == 105) && (is_sent(ended) || ended == 105));
        EXPECT_EQ(errno, 33) << "the queue may be full, the host's errno is its own";
      }
      return handled >= 50 && inside_a_call >= kInside;
    }));
    EXPECT_EQ(odd_results, 0);
    EXPECT_EQ(end(-1), 123) << "starts and ends were not disturbed";
  }));
}

}  // namespace
}  // namespace varn::test
