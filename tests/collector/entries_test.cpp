// Entries of ended threads and processes, taken back while others are traced.
#include "collector/entries.h"

#include <sys/sem.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "process/calls.h"
#include "support/sound_table.h"
#include "support/support.h"
#include "util/shared_word.h"

namespace varn::test {
namespace {

class Entries : public testing::Test {
 protected:
  int take_back() const { return take_entries_back(table_, collector_.ptrc_semid()); }
  std::uint32_t used() const { return load(table_.used_stack.count); }
  // A process's own entry and so many more, all in one bucket of ten.
  std::unique_ptr<ChildProcess> start_with(int threads) {
    const std::uint32_t before = used();
    auto process = collector_.start([threads] {
      ASSERT_EQ(TRAN_INIT(), 0);
      std::thread([&] {
        for (int n = 1; n <= threads; ++n) EXPECT_TRUE(is_sent(event(n * 0x100)));
      }).join();
      pause();
    });
    const std::uint32_t all = before + 1 + static_cast<std::uint32_t>(threads);
    EXPECT_TRUE(wait_until([&] { return used() == all; }));
    return process;
  }
  static void kill(ChildProcess& process) {
    process.kill(SIGKILL);
    EXPECT_FALSE(process.wait());
  }

  FakeCollector collector_;
  PTRC_HASH_TBL& table_ = collector_.ptrc_tbl();
};

TEST_F(Entries, OfProcessesThatAreGoneAreFreeAgainAndOthersStay) {
  const auto first = start_with(9);
  const auto living = start_with(5);
  const auto last = start_with(3);
  EXPECT_EQ(take_back(), 0) << "all are alive";
  kill(*first);
  kill(*last);
  EXPECT_EQ(take_back(), 10 + 4);
  EXPECT_TRUE(is_sound(table_));
  EXPECT_EQ(load(table_.used), 6U);
  EXPECT_EQ(collector_.entries_of(living->pid()).size(), 6U);
  EXPECT_EQ(collector_.entries_of(first->pid()).size(), 0U);
  EXPECT_EQ(take_back(), 0);
}

TEST_F(Entries, OfEndedThreadsAreFreeOnceTheirProcessHasGivenThemUp) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    std::thread([] {
      for (int n = 0; n < 10; ++n) EXPECT_TRUE(is_sent(event(7 + n * 0x100)));
    }).join();
    EXPECT_EQ(take_back(), 0) << "their places may be wanted no more";
    EXPECT_TRUE(is_sent(event(7 + 10 * 0x100)));
    EXPECT_EQ(take_back(), 10);
    EXPECT_TRUE(is_sound(table_));
    EXPECT_TRUE(is_sent(event(7 + 10 * 0x100)) && is_sent(event(7)) && is_sent(event(0)));
    EXPECT_TRUE(is_sound(table_));
    EXPECT_EQ(used(), 3U);
  }));
}

bool has_entry(int result) { return is_sent(result) || result == TRAN_RC_NOT_SENT; }

// More threads than the table has entries, one after the other, while another one takes back.
TEST_F(Entries, AreEnoughForAsManyThreadsAsEnd) {
  constexpr int kThreads = kTableEntries + 500;
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    std::atomic<bool> done{false};
    std::thread keeper([&] {
      for (; !done; usleep(1000)) take_back();
    });
    for (int n = 0; n < kThreads; n += 10)
      std::thread([n] {
        for (int tid = n + 1; tid <= n + 10; ++tid) EXPECT_TRUE(has_entry(event(tid))) << tid;
      }).join();
    done = true;
    keeper.join();
    EXPECT_TRUE(is_sound(table_));
    EXPECT_LT(used(), 2600U) << "no more than the process can have contexts";
  }));
}

TEST_F(Entries, OfADamagedTableAreLeftAndTheSemaphoreIsNotWaitedForLong) {
  const auto process = start_with(3);
  PTRC_HASH_ENT& entry = *collector_.entry_of(process->pid(), 0x200);
  kill(*process);
  sembuf take = {0, -1, SEM_UNDO};
  ASSERT_EQ(semop(collector_.ptrc_semid(), &take, 1), 0);
  EXPECT_EQ(take_back(), -1);
  take.sem_op = 1;
  ASSERT_EQ(semop(collector_.ptrc_semid(), &take, 1), 0);

  entry.bucket = kTableChains;
  table_.used_stack.numbers[0] = kTableEntries;
  EXPECT_EQ(take_back(), 2);
  entry.bucket = 1;
  table_.heads[1] = 0;
  table_.entries[0].next = 0;  // a loop without it
  EXPECT_EQ(take_back(), 0);
  table_.entries[0].next = entry.pidx;
  entry.next = kTableEntries;
  EXPECT_EQ(take_back(), 0);
  for (const std::uint32_t count : {9'000U, 0xFFFFFFFF}) {
    table_.used_stack.count = count;
    EXPECT_EQ(take_back(), 0);
  }
}

}  // namespace
}  // namespace varn::test
