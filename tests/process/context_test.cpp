// The contexts of threads, as they show in results, records, shared entries and log lines.
#include <pthread.h>
#include <sys/sem.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <regex>
#include <set>
#include <thread>

#include "hash/hash.h"
#include "hash/ptrc_hash_stk.h"
#include "process/calls.h"

namespace varn::test {
namespace {

void in_thread(const std::function<void()>& body) { std::thread(body).join(); }

// Runs the body in so many threads that are all alive until the last one has done its part.
void in_threads(int count, const std::function<void(int)>& body) {
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back([&, i] {
      body(i);
      ++done;
      wait_until([&] { return done == count; });
    });
  for (std::thread& thread : threads) thread.join();
}

class Contexts : public testing::Test {
 protected:
  // Thread numbers that share bucket 7.
  static int neighbour(int n) { return 7 + 256 * n; }

  bool log_matches(const std::string& pattern) const {
    for (const LogLine& line : collector_.log_lines())
      if (std::regex_match(line.text, std::regex(pattern))) return true;
    return false;
  }

  FakeCollector collector_;
};

TEST_F(Contexts, AThreadsIdChoosesItsBucket) {
  const struct {
    int tid;
    const char* tid_text;
    const char* bucket;
  } cases[] = {{0, "000000000000000", "00000"},       {5, "000000000000005", "00005"},
               {0x1207, "000000000004615", "00007"},  {0x1200, "000000000004608", "00018"},
               {0x10000, "000000000065536", "00000"}, {0x7FFFFFFF, "000002147483647", "00255"}};
  Shared<int> pid;
  EXPECT_TRUE(collector_.run([&] {
    *pid = getpid();
    ASSERT_EQ(TRAN_INIT(), 0);
    for (const auto& c : cases) EXPECT_TRUE(is_sent(info(c.tid))) << c.tid;
    for (const auto& c : cases) EXPECT_TRUE(is_sent(info(c.tid))) << c.tid << " again";
  }));
  EXPECT_EQ(collector_.entries_of(*pid).size(), std::size(cases)) << "one entry a thread";
  const std::vector<Record> records = collector_.read_all('I');
  ASSERT_EQ(records.size(), 2 * std::size(cases));
  for (std::size_t i = 0; i < records.size(); ++i) {
    const auto& c = cases[i % std::size(cases)];
    EXPECT_EQ(text_of(records[i], kTid), c.tid_text);
    EXPECT_EQ(text_of(records[i], kMtrTidIdx), c.bucket) << c.tid;
    char pidx[8];
    std::snprintf(pidx, sizeof pidx, "%05d",
                  collector_.entry_of(*pid, static_cast<std::uint64_t>(c.tid))->pidx);
    EXPECT_EQ(text_of(records[i], kPidx), pidx) << c.tid;
  }
}

TEST_F(Contexts, ANegativeNumberIsTheCallingThread) {
  for (const bool kernel : {false, true}) {
    if (kernel) collector_.environment["VARN_THREAD_ID"] = "kernel";
    Shared<std::uint64_t> id;
    EXPECT_TRUE(collector_.run([&] {
      ASSERT_EQ(TRAN_INIT(), 0);
      in_thread([&] {
        *id = kernel ? static_cast<std::uint64_t>(gettid()) : pthread_self();
        EXPECT_TRUE(is_sent(start(-1)));
        EXPECT_TRUE(is_sent(info(-99, nullptr))) << "every negative number is the same thread";
      });
    }));
    for (const Record& record : collector_.read_all('I'))
      EXPECT_EQ(std::stoull(text_of(record, kTid)), *id);
  }
}

TEST_F(Contexts, TheEleventhThreadOfABucketIsRefusedWithoutHoldingOthersUp) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    for (int n = 0; n < 10; ++n) EXPECT_TRUE(is_sent(event(neighbour(n)))) << n;
    EXPECT_EQ(event(neighbour(10)), 107);
    EXPECT_TRUE(is_sent(event(8))) << "another bucket";
    EXPECT_TRUE(is_sent(event(neighbour(9)))) << "those that have a context keep it";
    sembuf take = {0, -1, SEM_UNDO};
    ASSERT_EQ(semop(collector_.ptrc_semid(), &take, 1), 0);
    const auto begun = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) EXPECT_EQ(event(neighbour(10)), 107);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 1s) << "it waited for the semaphore";
  }));
}

TEST_F(Contexts, PosixThreadsShareABucketUnlessKernelIdsAreUsed) {
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    std::atomic<int> sent{0}, refused{0};
    in_threads(11, [&](int) {
      const int result = event(-1);
      sent += is_sent(result) ? 1 : 0;
      refused += result == 107 ? 1 : 0;
    });
    EXPECT_EQ(sent, 10);
    EXPECT_EQ(refused, 1);
  }));
  collector_.read_all();

  constexpr int kThreads = 200;
  Shared<std::array<pid_t, kThreads>> ids;
  collector_.environment["VARN_THREAD_ID"] = "kernel";
  const auto child = collector_.start([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    in_threads(kThreads, [&](int i) {
      ids->at(static_cast<std::size_t>(i)) = gettid();
      EXPECT_TRUE(wait_until([] { return is_sent(info(-1)); })) << i;
    });
  });
  std::vector<std::uint64_t> seen;
  EXPECT_TRUE(wait_until([&] {
    for (const Record& record : collector_.read_all('I'))
      seen.push_back(std::stoull(text_of(record, kTid)));
    return seen.size() >= kThreads;
  }));
  EXPECT_TRUE(child->wait());
  EXPECT_EQ(std::set<std::uint64_t>(seen.begin(), seen.end()),
            std::set<std::uint64_t>(ids->begin(), ids->end()));
}

TEST_F(Contexts, TheContextOfAnEndedThreadIsTakenBack) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    in_thread([] {
      for (int n = 0; n < 10; ++n) EXPECT_TRUE(is_sent(event(neighbour(n))));
    });
    EXPECT_EQ(collector_.entry_of(getpid(), 7)->ent_status, kEntInUse);
    PTRC_HASH_ENT& entry = *collector_.entry_of(getpid(), 7);
    EXPECT_TRUE(is_sent(event(neighbour(10))));
    EXPECT_EQ(entry.ent_status, kEntCleared);
    for (int n = 11; n < 20; ++n) EXPECT_TRUE(is_sent(event(neighbour(n)))) << n;
    EXPECT_EQ(event(neighbour(20)), 107) << "these are alive";
  }));
  EXPECT_TRUE(log_matches(
      R"(\(I\) mtr_tid_idx#7-0, tid 7 \(thread killed, ptrc 1\) resource clear\.\(10->9\))"));
  EXPECT_EQ(collector_.count_logged("resource clear"), 10);
}

TEST_F(Contexts, AContextWhoseReleaseIsRequestedIsTakenBackFromALivingThread) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(start(7)));
    PTRC_HASH_ENT& entry = *collector_.entry_of(getpid(), 7);
    entry.ent_status = kEntReleaseRequested;
    EXPECT_TRUE(is_sent(event(neighbour(1))));
    EXPECT_EQ(entry.ent_status, kEntCleared);
    EXPECT_EQ(info(7, nullptr), 123) << "the thread begins anew";
    const PTRC_HASH_ENT* const fresh = collector_.entry_of(getpid(), 7);
    ASSERT_NE(fresh, nullptr);
    EXPECT_NE(fresh, &entry);
  }));
  EXPECT_TRUE(log_matches(
      R"(\(I\) mtr_tid_idx#7-0, tid 7 \(thread alive, ptrc 2\) resource clear\.\(1->0\))"));
}

TEST_F(Contexts, TheProcesssOwnContextIsNeverTakenBack) {
  EXPECT_TRUE(collector_.run([&] {
    in_thread([] {
      ASSERT_EQ(TRAN_INIT(), 0);
      EXPECT_TRUE(is_sent(start(0)));
    });
    for (int n = 1; n < 10; ++n) EXPECT_TRUE(is_sent(event(n * 0x10000))) << n;
    EXPECT_EQ(event(10 * 0x10000), 107);
    EXPECT_TRUE(is_sent(info(0, nullptr))) << "its service is still open";
  }));
  EXPECT_FALSE(collector_.logged("resource clear"));
}

TEST_F(Contexts, AnIdOfTheCallersKeepsItsStateFromThreadToThread) {
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    in_threads(3, [](int i) {  // all alive while the id moves
      static std::atomic<int> turn{0};
      ASSERT_TRUE(wait_until([i] { return turn == i; }));
      if (i == 2) {
        EXPECT_TRUE(is_sent(end(7)));
        EXPECT_TRUE(is_sent(end(7)));
        EXPECT_EQ(end(7), 123);
      } else {
        EXPECT_TRUE(is_sent(start(7)));
      }
      ++turn;
    });
    in_thread([] { EXPECT_TRUE(is_sent(start(7))); });
    in_thread([] { EXPECT_TRUE(is_sent(info(7, nullptr))) << "also after the other has ended"; });
  }));
}

TEST_F(Contexts, APosixIdThatComesBackWithANewThreadIsANewThread) {
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    std::set<pthread_t> seen;
    bool came_back = false;
    for (int i = 0; i < 100 && !came_back; ++i)
      in_thread([&] {
        came_back = !seen.insert(pthread_self()).second;
        EXPECT_EQ(info(-1, nullptr), 123) << "no service is open yet";
        EXPECT_TRUE(is_sent(start(-1)));
      });
    EXPECT_TRUE(came_back);
  }));
  EXPECT_TRUE(collector_.logged("(thread killed, ptrc 1) resource clear."));
}

TEST_F(Contexts, ThreadsMayComeAndGoByTheThousand) {
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    for (int i = 0; i < 5000; ++i)
      in_thread([i] { ASSERT_EQ(check_gvar('_'), 0) << "thread " << i; });
  }));
}

TEST_F(Contexts, WithoutAFreeEntryAThreadGetsNoContext) {
  TableStack& free_stack = collector_.ptrc_tbl().free_stack;
  free_stack.count = 0;
  EXPECT_TRUE(collector_.run([&] {
    EXPECT_EQ(TRAN_INIT(), 116);
    expect_everything_returns(103);
    ptrc_hash_push(&free_stack, 4321);
    EXPECT_EQ(TRAN_INIT(), 0);
    EXPECT_EQ(event(5), 116);
    EXPECT_EQ(event(5), 116);
    ptrc_hash_push(&free_stack, 1234);
    EXPECT_TRUE(is_sent(event(5))) << "a later call tries again";
    EXPECT_EQ(collector_.entry_of(getpid(), 5)->pidx, 1234);
  }));
  EXPECT_TRUE(collector_.logged("<!> TRAN_INIT get_mtr_cxt_var error, return code 116"));
}

TEST_F(Contexts, AChainLongerThanTheTableStopsTracingOnTheHost) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    char key[32];
    std::snprintf(key, sizeof key, "%08d%015d", getpid(), 5);
    PTRC_HASH_TBL& table = collector_.ptrc_tbl();
    table.heads[get_hidx(key, 23, kTableChains - 1)] = 17;
    table.entries[17].next = 17;
    EXPECT_EQ(event(5), 116);
    expect_everything_returns(99);
    collector_.que_info().magic_code = kMagicReady;
    EXPECT_TRUE(is_sent(event(6))) << "once the collector has marked the segment ready again";
  }));
  EXPECT_TRUE(
      log_matches(R"(<!> PTRC_HASH_ARR_SIZE overflow \(pid : \d+, tid : 5\), used : 1\(=1\))"));
}

}  // namespace
}  // namespace varn::test
