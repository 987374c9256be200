// Garbage in every shared word: whatever the segments hold, the traced process gets one of the
// documented codes, in bounded time, and lives.
#include <chrono>
#include <random>

#include "process/calls.h"

namespace varn::test {
namespace {

template <typename T, typename U>
void store(T& word, U value) {
  __atomic_store_n(&word, static_cast<T>(value), __ATOMIC_RELAXED);
}

// Writes single words of garbage into the shared segments. Most calls are refused at the door while
// that is garbage too.
void damage(FakeCollector& collector, std::mt19937& random, int words,
            bool leave_door_open = true) {
  const auto below = [&](std::size_t n) { return static_cast<int>(random() % n); };
  TRAN_LOGF_QUE_INFO& info = collector.que_info();
  SVC_HASH_TBL& svc = collector.svc_tbl();
  PTRC_HASH_TBL& ptrc = collector.ptrc_tbl();
  for (; words > 0; --words) {
    PTRC_HASH_ENT& entry = ptrc.entries[kTableEntries - 1 - below(8)];  // those handed out first
    const std::pair<void*, std::size_t> regions[] = {
        {&info, sizeof info},
        {&svc, offsetof(SVC_HASH_TBL, entries)},
        {&svc.entries, sizeof svc.entries},
        {&ptrc.used, sizeof ptrc.used},
        {&ptrc.heads, sizeof ptrc.heads},
        {&ptrc.free_stack.count, 4},
        {&ptrc.free_stack.numbers[kTableEntries - 64], 64 * 4},
        {&ptrc.used_stack.count, 4},
        {&entry, 16},
        {&entry, offsetof(PTRC_HASH_ENT, call_stack)},
        {&entry, sizeof entry},
    };
    const auto& [at, size] = regions[below(std::size(regions))];
    const int likely[] = {0, -1, 1, -2, 9'999, 10'000, 10'001, below(10'000), INT32_MIN, INT32_MAX};
    const int any = static_cast<int>(random());
    store(static_cast<int*>(at)[below(size / 4)],
          below(2) == 0 ? any : likely[below(std::size(likely))]);
  }
  if (!leave_door_open) return;
  store(info.magic_code, kMagicReady);
  store(info.que_cnt, 4);
  store(info.log_flag_set, 0xFF);
}

void expect_documented_results(int tid) {
  for (const auto& [name, result] : call_everything(tid))
    EXPECT_TRUE(is_documented(result)) << name << " returned " << result;
}

TEST(Damage, AStartAndARunningProcessMeetGarbage) {
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    FakeCollector collector;
    std::mt19937 random(seed);
    const bool from_the_start = seed % 2 == 0;
    if (from_the_start) damage(collector, random, 30'000, seed % 4 == 0);
    EXPECT_TRUE(collector.run([&] {
      const int started = TRAN_INIT();
      EXPECT_TRUE(started == 0 || (from_the_start && (started == 103 || started == 116)));
      for (int round = 0; round < 200; ++round) {
        for (const int tid : {-1, 0, round}) expect_documented_results(tid);
        damage(collector, random, 500);
      }
      EXPECT_TRUE(is_documented(TRAN_SET_SVCTIMEOUT(-1)));
      const int done = TRAN_DONE();
      EXPECT_TRUE(done == 0 || done == -1) << done;
    }));
  }
}

TEST(Damage, GarbageArrivesWhileCallsLook) {
  FakeCollector collector;
  const auto vandal_process = collector.start([&] {
    for (std::mt19937 random(99);;) damage(collector, random, 50);
  });
  EXPECT_TRUE(collector.run([] {
    wait_until([] { return TRAN_INIT() == 0; }, 5s);
    const auto until = std::chrono::steady_clock::now() + 1s;
    for (int tid = -1; std::chrono::steady_clock::now() < until; ++tid) {
      expect_documented_results(-1);
      expect_documented_results(tid & 0xFFF);
    }
  }));
}

}  // namespace
}  // namespace varn::test
