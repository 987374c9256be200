// The contexts of threads, as they show in results, records, shared entries and log lines.
#include <pthread.h>
#include <sys/sem.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <tuple>

#include "hash/ptrc_hash_stk.h"
#include "process/calls.h"

namespace varn::test {
namespace {

void in_thread(const std::function<void()>& body) { std::thread(body).join(); }
int neighbour(int n) { return 7 + 256 * n; }  // thread numbers that share bucket 7

struct Contexts : testing::Test {
  FakeCollector collector_;
};

TEST_F(Contexts, AThreadsIdChoosesItsBucket) {
  // Entries are handed out from the last.
  const std::pair<int, const char*> cases[] = {{0, "000000000000000 00000 09999"},
                                               {0x1207, "000000000004615 00007 09998"},
                                               {0x1200, "000000000004608 00018 09997"},
                                               {0x10000, "000000000065536 00000 09996"},
                                               {0x7FFFFFFF, "000002147483647 00255 09995"}};
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    for (const auto& [tid, header] : cases) EXPECT_TRUE(is_sent(info(tid))) << tid;
    for (const auto& [tid, header] : cases) EXPECT_TRUE(is_sent(info(tid))) << tid << " again";
  }));
  const std::vector<Record> records = collector_.read_all('I');
  ASSERT_EQ(records.size(), 2 * std::size(cases));
  for (std::size_t i = 0; i < records.size(); ++i)
    EXPECT_EQ(std::string(records[i].view + kTid.at, 27), cases[i % std::size(cases)].second);
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

TEST_F(Contexts, TheEleventhThreadOfABucketIsRefusedAtOnceAndTheProcesssOwnContextStays) {
  EXPECT_TRUE(collector_.run([&] {
    in_thread([] {
      ASSERT_EQ(TRAN_INIT(), 0);
      EXPECT_TRUE(is_sent(start(0)));
    });
    for (int n = 1; n < 10; ++n) EXPECT_TRUE(is_sent(event(n * 0x10000))) << n;
    EXPECT_TRUE(is_sent(event(8))) << "another bucket";
    sembuf take = {0, -1, SEM_UNDO};
    ASSERT_EQ(semop(collector_.ptrc_semid(), &take, 1), 0);
    const auto begun = std::chrono::steady_clock::now();
    for (int n = 10; n < 110; ++n) EXPECT_EQ(event(n * 0x10000), 107);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 1s) << "it waited for the semaphore";
    EXPECT_TRUE(is_sent(event(9 * 0x10000))) << "those that have a context keep it";
    EXPECT_TRUE(is_sent(info(0, nullptr))) << "its service is still open, its thread has ended";
  }));
  EXPECT_FALSE(collector_.logged("resource clear"));
}

TEST_F(Contexts, PosixThreadsShareABucketUnlessKernelIdsAreUsed) {
  for (const auto& [ids, count, most_refused] :
       {std::tuple("posix", 11, 1), std::tuple("kernel", 200, 0)}) {
    collector_.environment["VARN_THREAD_ID"] = ids;
    EXPECT_TRUE(collector_.run([&, count = count, most_refused = most_refused] {
      ASSERT_EQ(TRAN_INIT(), 0);
      std::atomic<int> done{0}, refused{0};
      std::vector<std::thread> threads;
      for (int i = 0; i < count; ++i)
        threads.emplace_back([&] {
          const int result = info(-1, nullptr);
          EXPECT_TRUE(result == 123 || result == 107) << result;
          refused += result == 107 ? 1 : 0;
          ++done;
          wait_until([&] { return done == count; });  // all are alive until the last has its result
        });
      for (std::thread& thread : threads) thread.join();
      EXPECT_EQ(refused, most_refused);
      EXPECT_EQ(collector_.entries_of(getpid()).size(), 1U + count - refused);
    }));
  }
}

TEST_F(Contexts, TheContextOfAThreadThatEndedOrIsToReleaseItIsTakenBack) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    in_thread([] {
      for (int n = 0; n < 10; ++n) EXPECT_TRUE(is_sent(event(neighbour(n))));
    });
    PTRC_HASH_ENT& ended = *collector_.entry_of(getpid(), 7);
    EXPECT_TRUE(is_sent(event(neighbour(10))));
    EXPECT_EQ(ended.ent_status, kEntCleared);
    for (int n = 11; n < 20; ++n) EXPECT_TRUE(is_sent(event(neighbour(n)))) << n;
    EXPECT_EQ(event(neighbour(20)), 107) << "these are alive";

    EXPECT_TRUE(is_sent(start(8)));
    PTRC_HASH_ENT& released = *collector_.entry_of(getpid(), 8);
    released.ent_status = kEntReleaseRequested;
    EXPECT_TRUE(is_sent(event(8 + 256)));
    EXPECT_EQ(released.ent_status, kEntCleared);
    EXPECT_EQ(info(8, nullptr), 123) << "the thread begins anew";
    EXPECT_NE(collector_.entry_of(getpid(), 8), nullptr);
  }));
  const std::string prefix = "(I) mtr_tid_idx#";
  EXPECT_TRUE(
      collector_.logged(prefix + "7-0, tid 7 (thread killed, ptrc 1) resource clear.(10->9)"));
  EXPECT_TRUE(
      collector_.logged(prefix + "8-0, tid 8 (thread alive, ptrc 2) resource clear.(1->0)"));
  EXPECT_EQ(collector_.count_logged("resource clear"), 11);
}

TEST_F(Contexts, AnIdOfTheCallersKeepsItsStateFromThreadToThread) {
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(start(7)));
    in_thread([] { EXPECT_TRUE(is_sent(start(7)) && is_sent(start(8))); });
    EXPECT_TRUE(is_sent(end(7)) && is_sent(end(7)));
    EXPECT_EQ(end(7), 123);
    EXPECT_TRUE(is_sent(end(8))) << "also after the one that claimed it has ended";
  }));
}

TEST_F(Contexts, APosixIdThatComesBackWithANewThreadIsANewThreadByTheThousand) {
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    std::set<pthread_t> seen;
    for (int i = 0; i < 5000; ++i)
      in_thread([&] {
        seen.insert(pthread_self());
        ASSERT_EQ(info(-1, nullptr), 123) << "no service is open yet in thread " << i;
        start(-1);  // open also when the queue is full
      });
    EXPECT_LT(seen.size(), 5000U) << "none came back";
  }));
  EXPECT_TRUE(collector_.logged("(thread killed, ptrc 1) resource clear."));
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
    ptrc_hash_push(&free_stack, 1234);
    EXPECT_TRUE(wait_until([] { return is_sent(event(5)); })) << "a later call tries again";
    EXPECT_EQ(collector_.entry_of(getpid(), 5)->pidx, 1234);
  }));
  EXPECT_TRUE(collector_.logged("<!> TRAN_INIT get_mtr_cxt_var error, return code 116"));
}

TEST_F(Contexts, AChainLongerThanTheTableStopsTracingOnTheHost) {
  const auto child = collector_.start([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    std::ranges::fill(collector_.ptrc_tbl().heads, 17);
    collector_.ptrc_tbl().entries[17].next = 17;
    EXPECT_EQ(event(5), 116);
    expect_everything_returns(99);
    collector_.que_info().magic_code = kMagicReady;
    EXPECT_TRUE(is_sent(event(0))) << "once the collector has marked the segment ready again";
  });
  EXPECT_TRUE(child->wait());
  EXPECT_TRUE(collector_.logged("<!> PTRC_HASH_ARR_SIZE overflow (pid : " +
                                std::to_string(child->pid()) + ", tid : 5), used : 1(=1)"));
}

}  // namespace
}  // namespace varn::test
