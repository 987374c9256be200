// Garbage in every shared word: whatever the segments hold, the traced process gets one of the
// documented codes, in bounded time, and lives.
#include <chrono>
#include <cstring>
#include <random>

#include "process/calls.h"

namespace varn::test {
namespace {

// Writes single words of garbage into the shared segments.
class Vandal {
 public:
  Vandal(FakeCollector& collector, unsigned seed) : collector_(collector), random_(seed) {}

  void damage(int words) {
    for (int i = 0; i < words; ++i) hit(pick());
  }
  // Most calls are refused at the door while these are garbage.
  void open_the_door() {
    TRAN_LOGF_QUE_INFO& info = collector_.que_info();
    store(info.magic_code, kMagicReady);
    store(info.que_cnt, 4);
    store(info.log_flag_set, 0xFF);
  }

 private:
  struct Region {
    void* at;
    std::size_t size;
  };

  template <typename T, typename U>
  static void store(T& word, U value) {
    __atomic_store_n(&word, static_cast<T>(value), __ATOMIC_RELAXED);
  }
  int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

  Region pick() {
    SVC_HASH_TBL& svc = collector_.svc_tbl();
    PTRC_HASH_TBL& ptrc = collector_.ptrc_tbl();
    PTRC_HASH_ENT& entry = ptrc.entries[kTableEntries - 1 - below(8)];  // those handed out first
    constexpr std::size_t kFirstFields = offsetof(PTRC_HASH_ENT, call_stack);
    const Region regions[] = {
        {&collector_.que_info(), sizeof(TRAN_LOGF_QUE_INFO)},
        {&svc, offsetof(SVC_HASH_TBL, entries)},
        {&svc.entries, sizeof svc.entries},
        {&ptrc.used, sizeof ptrc.used},
        {&ptrc.heads, sizeof ptrc.heads},
        {&ptrc.free_stack.count, 4},
        {&ptrc.free_stack.numbers[kTableEntries - 64], 64 * 4},
        {&ptrc.used_stack.count, 4},
        {&entry, 16},
        {&entry, kFirstFields},
        {&entry, kFirstFields},
        {reinterpret_cast<char*>(&entry) + kFirstFields, sizeof entry - kFirstFields},
    };
    return regions[below(std::size(regions))];
  }
  void hit(Region region) {
    const int likely[] = {0, -1, 1, -2, 9'999, 10'000, 10'001, below(10'000), INT32_MIN, INT32_MAX};
    const int value =
        below(2) == 0 ? static_cast<int>(random_()) : likely[below(std::size(likely))];
    auto* const words = static_cast<int*>(region.at);
    store(words[below(static_cast<int>(region.size / 4))], value);
  }

  FakeCollector& collector_;
  std::mt19937 random_;
};

void expect_documented_results(int tid) {
  for (const auto& [name, result] : call_everything(tid))
    EXPECT_TRUE(is_documented(result)) << name << " returned " << result;
}

TEST(Damage, AStartMeetsGarbage) {
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    FakeCollector collector;
    Vandal vandal(collector, seed);
    vandal.damage(30'000);
    if (seed % 2 == 0) vandal.open_the_door();
    EXPECT_TRUE(collector.run([] {
      const int result = TRAN_INIT();
      EXPECT_TRUE(result == 0 || result == 103 || result == 116) << result;
      for (const int tid : {-1, 0, 1, 2, 3}) expect_documented_results(tid);
      const int done = TRAN_DONE();
      EXPECT_TRUE(done == 0 || done == -1) << done;
    }));
  }
}

TEST(Damage, ARunningProcessMeetsGarbage) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    FakeCollector collector;
    EXPECT_TRUE(collector.run([&] {
      ASSERT_EQ(TRAN_INIT(), 0);
      Vandal vandal(collector, seed);
      for (int round = 0; round < 200; ++round) {
        vandal.damage(500);
        vandal.open_the_door();
        for (const int tid : {-1, 0, round}) expect_documented_results(tid);
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
    Vandal vandal(collector, 99);
    for (;;) {
      vandal.damage(50);
      vandal.open_the_door();
    }
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
