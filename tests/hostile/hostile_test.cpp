// Peers that may do what they like with the shared objects, and a process whose threads share what
// one of them should use alone: it lives, its calls come back in time, its records are whole.
#include <fcntl.h>
#include <sched.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/wait.h>

#include <atomic>
#include <set>
#include <thread>

#include "hostile/guarded_segments.h"
#include "hostile/outcomes.h"
#include "hostile/seed.h"
#include "hostile/whole.h"
#include "process/calls.h"

namespace varn::test {
namespace {

constexpr int kThreads = 8;
constexpr auto kUsualTime = kIsSanitized ? 5s : 10s;
constexpr Duration kSlack = kIsSanitized ? 300ms : 100ms;
// Two threads whose entries the peer makes one, or that share a number with a start or stop, race.
// The thread sanitizer looks at the others.
constexpr bool kThreadsMayBeMixed = !kIsThreadSanitized;
constexpr Duration kSemaphoreWait = 2s;
constexpr Duration kStartOrStop = 6s;  // waits for calls, the semaphore, another start or stop
Duration attack_time() { return is_long_run() ? Duration(600s) : Duration(kUsualTime); }

template <typename Body>
void on_threads(Body body) {
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) threads.emplace_back(body, n);
  for (std::thread& thread : threads) thread.join();
}

// How long a thread takes, less what the machine was busy for with others. That is read outside of
// the two readings of the clock: what falls between them makes it shorter, not longer.
class Stopwatch {
 public:
  struct Lap {
    Duration took;
    bool waited;
    bool is_in_order() const { return took < (waited ? kSemaphoreWait : Duration(0)) + kSlack; }
  };
  Lap stop() const {
    const Duration took = std::chrono::steady_clock::now() - time_;
    return {took - (run_delay() - delay_), waits() > waits_};
  }

 private:
  static std::chrono::nanoseconds run_delay() {
    thread_local const int file = open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
    char text[64] = {};
    long on_cpu = 0, delay = 0;
    if (pread(file, text, sizeof text - 1, 0) > 0) std::sscanf(text, "%ld %ld", &on_cpu, &delay);
    return std::chrono::nanoseconds(delay);
  }
  static long waits() {
    rusage used = {};
    getrusage(RUSAGE_THREAD, &used);
    return used.ru_nvcsw;
  }

  const long waits_ = waits();
  const std::chrono::nanoseconds delay_ = run_delay();
  const std::chrono::steady_clock::time_point time_ = std::chrono::steady_clock::now();
};

// ---- The peer ----

constexpr int kEntriesHit = 24;  // of the process-thread table, those handed out first
constexpr int kInteresting[] = {0,   -1,    1,      51,     52,     127,     128,     5,
                                6,   8'192, 8'193,  9'999,  10'000, 10'001,  INT_MAX, INT_MIN,
                                255, 2,     65'535, 32'767, -2,     1 << 20, 1 << 30, 99};

class Peer {
 public:
  explicit Peer(FakeCollector& collector) : collector_(collector), random_(first_seed()) {
    std::memcpy(&sound_info_, &collector.que_info(), sizeof sound_info_);
  }

  [[noreturn]] void attack() {
    for (;;) {
      if (kThreadsMayBeMixed) rewrite();
      if (random_.one_in(8)) take_messages();
      if (random_.one_in(64)) set_semaphore();
      usleep(static_cast<useconds_t>(random_.below(random_.one_in(4) ? 20'000 : 500)));
    }
  }

 private:
  void rewrite() {
    for (int left = random_.below(300); left >= 0; --left) rewrite_a_word();
    if (!random_.one_in(16)) open_door();
    if (random_.one_in(32)) give_entries_back();
  }

  void rewrite_a_word() {
    TRAN_LOGF_QUE_INFO& info = collector_.que_info();
    SVC_HASH_TBL& svc = collector_.svc_tbl();
    PTRC_HASH_TBL& ptrc = collector_.ptrc_tbl();
    PTRC_HASH_ENT& entry = ptrc.entries[kTableEntries - 1 - random_.below(kEntriesHit)];
    SqlEntry& sql = entry.sql_ent[random_.below(kSqlEntries)];
    const std::span<char> parts[] = {
        bytes_of(info),
        {reinterpret_cast<char*>(&svc), sizeof svc},
        bytes_of(svc.heads),
        bytes_of(svc.entries[kTableEntries - 1]),
        bytes_of(ptrc.heads),
        bytes_of(ptrc.free_stack.count),
        {reinterpret_cast<char*>(&ptrc.free_stack.numbers[kTableEntries - 256]), 1024},
        {reinterpret_cast<char*>(&ptrc.used_stack), 64},
        {reinterpret_cast<char*>(&entry), 16},
        {reinterpret_cast<char*>(&entry.tran_state), 16},  // with the depths of calls
        {reinterpret_cast<char*>(&entry), offsetof(PTRC_HASH_ENT, call_stack)},
        bytes_of(entry.call_stack[random_.below(4)]),
        {reinterpret_cast<char*>(&entry.dbio_elapsed_total), 16},
        {reinterpret_cast<char*>(&sql.stmt_len), 4},
        bytes_of(sql),
        bytes_of(entry),
        {reinterpret_cast<char*>(&ptrc), sizeof ptrc},
    };
    const std::span<char> part = random_.of(parts);
    char* const at = part.data() + random_.bits() % part.size();
    const int value =
        random_.one_in(3) ? static_cast<int>(random_.bits()) : random_.of(kInteresting);
    if (random_.one_in(4))
      __atomic_store_n(at, static_cast<char>(value), __ATOMIC_RELAXED);
    else
      __atomic_store_n(reinterpret_cast<int*>(reinterpret_cast<std::uintptr_t>(at) & ~3UL), value,
                       __ATOMIC_RELAXED);
  }
  template <typename T>
  static std::span<char> bytes_of(T& object) {
    return {reinterpret_cast<char*>(&object), sizeof object};
  }

  // Without these most calls would be refused at the door.
  void open_door() { std::memcpy(&collector_.que_info(), &sound_info_, sizeof sound_info_); }
  void give_entries_back() {
    PTRC_HASH_TBL& ptrc = collector_.ptrc_tbl();
    std::fill(std::begin(ptrc.heads), std::end(ptrc.heads), kNoEntry);
    for (int n = 0; n < kEntriesHit; ++n) ptrc.entries[kTableEntries - 1 - n].ent_status = 0;
    for (int n = 0; n < kTableEntries; ++n) ptrc.free_stack.numbers[n] = n;
    ptrc.free_stack.count = kTableEntries;
  }

  void take_messages() {
    const int queue = collector_.object(kTranLogfMsgqKey, random_.below(4)).id();
    Record record;
    for (int left = random_.below(20); left > 0; --left)
      msgrcv(queue, &record, kRecordTextSize, 0, IPC_NOWAIT);
  }

  void set_semaphore() {
    const int semid = collector_.ptrc_semid();
    semctl(semid, 0, SETVAL, random_.of({0, 0, 0, 1, 2, 32'767}));
    usleep(static_cast<useconds_t>(random_.below(random_.one_in(4) ? 3'000'000 : 100'000)));
    semctl(semid, 0, SETVAL, 1);
  }

  FakeCollector& collector_;
  Random random_;
  TRAN_LOGF_QUE_INFO sound_info_;
};

// ---- The process ----

// For the process that looks on.
const char* shown(const char* name) { return name == nullptr ? "" : name; }

struct Tally {
  std::atomic<std::int64_t> calls, sent, longest_us;
  std::atomic<const char*> undocumented;
  std::atomic<int> result;
  std::atomic<const char*> late;

  void note(const ExportedCall& call, int returned, const Stopwatch::Lap& lap) {
    const bool may_start = call.name == "TRAN_STARTX";
    ++calls;
    sent += is_sent(returned);
    if (!is_documented(call.name, returned)) result = returned, undocumented = call.name.data();
    if (may_start ? lap.took > kStartOrStop : !lap.is_in_order()) late = call.name.data();
    const std::int64_t us = lap.took / 1us;
    for (std::int64_t most = longest_us; us > most;) longest_us.compare_exchange_weak(most, us);
  }
};

bool starts_or_stops(const ExportedCall& call) {
  return call.name == "TRAN_INIT" || call.name == "TRAN_DONE" || call.name == "TRAN_SET_SVCTIMEOUT";
}

bool changes_names(const ExportedCall& call) { return call.name.ends_with("_PROFILE"); }

// On thread numbers whose buckets no other thread uses: who waits, waits for the semaphore alone. A
// change of names waits for hooks under way.
void trace_until(const std::atomic<bool>& stopped, int thread, Tally& tally) {
  for (int round = 0; !stopped; ++round) {
    const int own = kThreads * (1 + round / 32 % 31) + thread;
    const int tid = own + 256 * (round % 2);
    for (const ExportedCall& call : kExportedCalls) {
      if (starts_or_stops(call) || (changes_names(call) && thread != 0)) continue;
      const Stopwatch watch;
      const int result = make(call, tid);
      tally.note(call, result, watch.stop());
    }
  }
}

void start_again_until(Duration time) {
  const auto until = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < until) {
    wait_until([] { return TRAN_INIT() == 0; }, 1s);
    std::this_thread::sleep_for(300ms);
    const Stopwatch watch;
    TRAN_DONE();
    EXPECT_LT(watch.stop().took, kStartOrStop);
  }
}

TEST(Hostile, APeerThatWritesEverywhereAndTakesRecordsAndTheSemaphoreHarmsNothing) {
  FakeCollector collector;
  collector.add_service(kService, {}, 3);
  const Shared<Tally> tally;
  const auto peer = collector.start([&] { Peer(collector).attack(); });
  const auto process = collector.start([&] {
    std::atomic<bool> stopped{false};
    std::thread starter([&] {
      start_again_until(attack_time());
      stopped = true;
    });
    on_threads([&](int n) { trace_until(stopped, n, *tally); });
    starter.join();
    EXPECT_TRUE(segment_tails_are_whole());
  });
  std::set<char> types;
  const auto until = std::chrono::steady_clock::now() + attack_time();
  while (std::chrono::steady_clock::now() < until && !testing::Test::HasFailure()) {
    for (const Record& record : collector.read_all()) {
      types.insert(type_of(record));
      EXPECT_TRUE(is_well_formed(record));
    }
    std::this_thread::sleep_for(2ms);
  }
  EXPECT_TRUE(process->wait(attack_time() + 30s));
  EXPECT_STREQ(shown(tally->undocumented), "") << "returned " << tally->result;
  EXPECT_STREQ(shown(tally->late), "") << "the longest call took " << tally->longest_us << " us";
  EXPECT_EQ(std::string(types.begin(), types.end()), "129BEIQVX") << "tracing did not go deep";
  RecordProperty("calls", std::to_string(tally->calls));
  RecordProperty("sent", std::to_string(tally->sent));
}

// ---- One context for many ----

// A number is for one thread at a time: who breaks the rule mixes records, and nothing worse.
TEST(Hostile, ThreadsThatShareTheProcesssOwnContextHarmNothing) {
  if (!kThreadsMayBeMixed) GTEST_SKIP() << "that is what they are";
  FakeCollector collector;
  collector.add_service(kService);
  const auto time = is_long_run() ? 60s : 4s;
  const auto process = collector.start([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    const auto until = std::chrono::steady_clock::now() + time;
    on_threads([&](int n) {
      Random random(first_seed() + static_cast<std::uint64_t>(n));
      while (std::chrono::steady_clock::now() < until) {
        const ExportedCall& call = random.of(kExportedCalls);
        if (starts_or_stops(call)) continue;
        const int result = make(call, 0);
        EXPECT_TRUE(is_documented(call.name, result)) << call.name << " returned " << result;
      }
    });
    EXPECT_TRUE(segment_tails_are_whole());
    while (end(0) != TRAN_RC_DEPTH) collector.read_all();
    collector.read_all();
    EXPECT_TRUE(is_sent(start(0)) && is_sent(info(0)) && is_sent(end(0))) << "it serves again";
    const std::vector<Record> records = collector.read_all();
    EXPECT_GE(records.size(), 3U);
    for (const Record& record : records) EXPECT_TRUE(is_well_formed(record));
  });
  std::size_t arrived = 0;
  const auto until = std::chrono::steady_clock::now() + time;
  for (int n = 0; std::chrono::steady_clock::now() < until; ++n) {
    collector.que_info().svc_filtering = static_cast<std::uint8_t>(n % 2);
    arrived += collector.read_all().size();
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_TRUE(process->wait(60s));
  EXPECT_GT(arrived, 1000U);
}

// ---- One entry for two ----

// Two processes that are number 1, as those of two containers may be, one after the other.
TEST(Hostile, AnEntryLeftByAProcessOfTheSameNumberHasNoOpenCallsForTheNext) {
  FakeCollector collector;
  const auto leave_calls_open = [&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    const PTRC_HASH_ENT& entry = *collector.entry_of(1, 0);
    EXPECT_EQ(entry.call_top, 0);
    EXPECT_EQ(entry.call_nest, 0);
    EXPECT_EQ(entry.sql_cnt, 0);
    for (const ExportedCall& call : kExportedCalls) {
      if (!starts_or_stops(call)) make(call, 0);
      if (call.name == "TRAN_SQL_STMT") break;
    }
    EXPECT_EQ(entry.call_top, 1);
    EXPECT_EQ(entry.sql_cnt, 1);
  };
  // Neither looks for leaks: that takes a thread, which the namespace of a dead first process
  // denies.
  const auto leave = [] { std::_Exit(testing::Test::HasFailure() ? 1 : 0); };
  for (int n = 0; n < 2; ++n)
    EXPECT_TRUE(collector.run([&] {
      EXPECT_EQ(unshare(CLONE_NEWPID), 0);
      EXPECT_TRUE(ChildProcess([&] { leave_calls_open(), leave(); }).wait());
      leave();
    }));
  EXPECT_EQ(collector.entries_of(1).size(), 1U) << "it was not the same entry";
}

}  // namespace
}  // namespace varn::test
