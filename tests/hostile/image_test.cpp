// Shared segments as a broken or hostile peer may leave them: a process that starts on them, or
// already runs, gets its codes in bounded time and writes nowhere but into its own.
#include <fcntl.h>
#include <sys/wait.h>

#include "hash/get_ptrc_hash.h"
#include "hash/hash.h"
#include "hostile/guarded_segments.h"
#include "hostile/outcomes.h"
#include "hostile/seed.h"
#include "process/calls.h"
#include "records/calls.h"
#include "util/text.h"

namespace varn::test {
namespace {

constexpr int kImages = 20'000 / kOneInAlone;
constexpr int kTid = 7;      // has its entry when the damage comes
constexpr int kLateTid = 8;  // has none yet
constexpr int kNear = 12;    // entries that a fresh table hands out first
constexpr Duration kLongest = 100ms;

template <typename T, typename U>
void put(T& word, U value) {
  __atomic_store_n(&word, static_cast<T>(value), __ATOMIC_RELAXED);
}

std::uint32_t chain_of(int tid) {
  char key[23];
  put_digits(key, 8, getpid());
  put_digits(key + 8, 15, tid);
  return get_hidx(key, sizeof key, kTableChains - 1);
}
std::uint32_t chain_of_service() {
  const std::string key = padded(kService, sizeof SVC_HASH_ENT::svc_id);
  return get_hidx(key.data(), key.size(), kTableChains - 1);
}

// ---- Damage ----

// The parts of the segments that a process looks at; of the tables' millions of words most are
// never.
struct Part {
  void* at;
  std::size_t size;
};

class Vandal {
 public:
  Vandal(FakeCollector& collector, std::uint64_t seed)
      : info_(collector.que_info()),
        svc_(collector.svc_tbl()),
        ptrc_(collector.ptrc_tbl()),
        random_(seed) {}

  Random& random() { return random_; }

  void damage(int pieces) {
    for (; pieces > 0; --pieces) damage_a_piece();
  }

  // Otherwise most calls would be refused at the door.
  void open_door() {
    put(info_.magic_code, kMagicReady);
    put(info_.que_cnt, 4);
    put(info_.log_flag_set, 0xFF);
  }

 private:
  std::int32_t some_word() {
    constexpr std::int32_t kOdd[] = {
        0,         -1,    1,         -2,    2,     51,        52,        127,   128,
        5,         6,     8'192,     8'193, 9'999, 10'000,    10'001,    9'998, 65'536,
        INT16_MAX, 9'997, INT32_MIN, 9'996, 9'995, INT32_MAX, 0x41414141};
    return random_.one_in(3) ? static_cast<std::int32_t>(random_.bits()) : random_.of(kOdd);
  }

  Part some_part() {
    PTRC_HASH_ENT& entry = ptrc_.entries[kTableEntries - 1 - random_.below(kNear)];
    CallEntry& call = entry.call_stack[random_.below(4)];
    SqlEntry& sql = entry.sql_ent[random_.below(kSqlEntries)];
    SVC_HASH_ENT& svc = svc_.entries[kTableEntries - 1 - random_.below(4)];
    const Part parts[] = {
        {&info_, sizeof info_},
        {&svc_.heads[chain_of_service()], 4},
        {&svc_.used, 4},
        {&svc, sizeof svc},
        {&ptrc_.used, 4},
        {&ptrc_.heads[chain_of(0)], 4},
        {&ptrc_.heads[chain_of(kTid)], 4},
        {&ptrc_.heads[chain_of(kLateTid)], 4},
        {&ptrc_.free_stack.count, 4},
        {&ptrc_.free_stack.numbers[kTableEntries - kNear], 4 * kNear},
        {&ptrc_.used_stack, 4 * kNear},
        {&entry, 16},
        {&entry, offsetof(PTRC_HASH_ENT, call_stack)},
        {&entry.ent_pid, offsetof(PTRC_HASH_ENT, call_stack) - offsetof(PTRC_HASH_ENT, ent_pid)},
        {&call, sizeof call},
        {&entry.dbio_elapsed_total, 16},
        {&sql.stmt_len, 4},
        {&sql, sizeof sql},
        {&entry.sql_id, sizeof entry - offsetof(PTRC_HASH_ENT, sql_id)},
    };
    return random_.of(parts);
  }

  void damage_a_piece() {
    const auto [at, size] = some_part();
    auto* const bytes = static_cast<char*>(at);
    const std::size_t place = random_.bits() % size;
    switch (random_.below(8)) {
      case 0:
        put(bytes[place], random_.bits());
        break;
      case 1:  // text without an end
        std::memset(bytes + place, 'A', size - place);
        break;
      default:
        put(reinterpret_cast<std::int32_t&>(bytes[place / 4 * 4]), some_word());
    }
  }

  TRAN_LOGF_QUE_INFO& info_;
  SVC_HASH_TBL& svc_;
  PTRC_HASH_TBL& ptrc_;
  Random random_;
};

// What a sound image holds, where images differ from it. Among its entries are those of another
// process, full to their ends, under numbers that a damaged link or count is likely to be.
class Image {
 public:
  explicit Image(FakeCollector& collector) : collector_(collector) {
    TRAN_LOGF_QUE_INFO& info = collector.que_info();
    SVC_HASH_TBL& svc = collector.svc_tbl();
    PTRC_HASH_TBL& ptrc = collector.ptrc_tbl();
    collector.add_service(kService, {}, 3);
    info.svc_filtering = 1;
    keep(&info, sizeof info);
    keep(&svc, offsetof(SVC_HASH_TBL, entries));
    keep(&svc.entries[kTableEntries - kNear], sizeof *svc.entries * kNear);
    keep(&ptrc, offsetof(PTRC_HASH_TBL, entries));
    keep(ptrc.entries, sizeof *ptrc.entries * 2);
    keep(&ptrc.entries[kTableEntries - kNear], sizeof *ptrc.entries * kNear);
    keep(&ptrc.free_stack, sizeof ptrc.free_stack + sizeof ptrc.used_stack);
    restore();
  }

  // Whether what this process has no right to write is as it was. A damaged chain may have been
  // lengthened by another's entry: its link is not looked at.
  const char* changed_part() const {
    const PTRC_HASH_TBL& ptrc = collector_.ptrc_tbl();
    for (const int n : kOthers)
      if (!is_other(ptrc.entries[n])) return "another process's entry";
    constexpr int kOwnChains = 4;  // of the threads' numbers and of the thread's own
    const auto* const heads = kept_at<std::int32_t>(&ptrc, offsetof(PTRC_HASH_TBL, heads));
    int changed = 0;
    for (int n = 0; n < kTableChains; ++n) changed += ptrc.heads[n] != heads[n];
    if (changed > kOwnChains) return "others' chains";
    const auto* const numbers = kept_at<std::uint32_t>(&ptrc.free_stack, sizeof(std::uint32_t));
    if (!std::equal(numbers, numbers + kTableEntries - kNear, ptrc.free_stack.numbers))
      return "the free numbers";
    return nullptr;
  }

  void restore() {
    for (const auto& [at, bytes] : kept_) std::memcpy(at, bytes.data(), bytes.size());
    for (const int n : kOthers) fill_other(collector_.ptrc_tbl().entries[n]);
    for (int n = 0; n < 4; ++n) collector_.read_queue(n);
  }

 private:
  static constexpr int kOthers[] = {2,   5,   6,     51,    52,
                                    127, 128, 8'192, 8'193, kTableEntries - kNear - 1};
  static constexpr char kOther = 'Z';
  static constexpr std::size_t kFilledFrom = offsetof(PTRC_HASH_ENT, main_gid);

  static void fill_other(PTRC_HASH_ENT& entry) {
    std::memset(reinterpret_cast<char*>(&entry) + kFilledFrom, kOther, sizeof entry - kFilledFrom);
    entry.ent_status = kEntInUse;
    entry.next = kNoEntry;
  }
  static bool is_other(const PTRC_HASH_ENT& entry) {
    const auto* const bytes = reinterpret_cast<const char*>(&entry);
    const auto others = std::count(bytes + kFilledFrom, bytes + sizeof entry, kOther);
    return entry.ent_status == kEntInUse && others + 1 == sizeof entry - kFilledFrom;
  }
  template <typename T>
  const T* kept_at(const void* part, std::size_t offset) const {
    const auto kept =
        std::find_if(kept_.begin(), kept_.end(), [part](const auto& k) { return k.first == part; });
    return reinterpret_cast<const T*>(kept->second.data() + offset);
  }

  void keep(void* at, std::size_t size) {
    kept_.emplace_back(at, std::string(static_cast<char*>(at), size));
  }

  FakeCollector& collector_;
  std::vector<std::pair<void*, std::string>> kept_;
};

// ---- The process on it ----

// What went wrong first, for the process that looks on.
struct Verdict {
  std::string_view call;  // in the program's own constants
  int result;
  bool undocumented, wrote_behind, slow;
  const char* changed;  // what was not its own to write
  Duration longest;
  bool is_harmed() const { return undocumented || wrote_behind || slow || changed != nullptr; }
};

// Time for which the thread was ready and the machine busy with others.
std::chrono::nanoseconds run_delay() {
  char text[64] = {};
  long on_cpu = 0, delay = 0;
  const int file = open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
  if (read(file, text, sizeof text - 1) > 0) std::sscanf(text, "%ld %ld", &on_cpu, &delay);
  close(file);
  return std::chrono::nanoseconds(delay);
}

class Walker {
 public:
  explicit Walker(Verdict& verdict) : verdict_(verdict) {}

  int make(std::string_view name, int tid) {
    const auto call = std::find_if(std::begin(kExportedCalls), std::end(kExportedCalls),
                                   [&](const ExportedCall& c) { return c.name == name; });
    return make(*call, tid);
  }

  int make(const ExportedCall& call, int tid) {
    if (!verdict_.is_harmed()) verdict_.call = call.name;  // for a process that dies in it
    const auto delay = run_delay();
    const auto begun = std::chrono::steady_clock::now();
    const int result = varn::test::make(call, tid);
    Duration took = std::chrono::steady_clock::now() - begun;
    if (took > kLongest) took -= run_delay() - delay;
    verdict_.longest = std::max(verdict_.longest, took);
    note(call.name, result, !is_documented(call.name, result), verdict_.undocumented);
    note(call.name, result, took > kLongest, verdict_.slow);
    return result;
  }

  void look_behind() { note("", 0, !segment_tails_are_whole(), verdict_.wrote_behind); }

 private:
  void note(std::string_view call, int result, bool is_wrong, bool& mark) {
    if (!is_wrong || mark) return;
    mark = true;
    verdict_.call = call;
    verdict_.result = result;
  }

  Verdict& verdict_;
};

constexpr bool is_stop(std::string_view name) {
  return name == "TRAN_DONE" || name == "TRAN_SET_SVCTIMEOUT";
}

// A process's life on an image; its statements, levels and calls are there while more is damaged.
void live_on(FakeCollector& collector, std::uint64_t seed, Verdict& verdict) {
  Vandal vandal(collector, seed);
  Random& random = vandal.random();
  Walker walker(verdict);
  if (random.one_in(2)) vandal.damage(1 + random.below(30));
  if (!random.one_in(8)) vandal.open_door();
  for (const int tid : {kTid, 0, kLateTid}) {
    for (const ExportedCall& call : kExportedCalls) {
      if (random.one_in(4)) {
        vandal.damage(1 + random.below(3));
        if (!random.one_in(8)) vandal.open_door();
      }
      if (!is_stop(call.name)) walker.make(call, tid);
    }
  }
  walker.make("TRAN_SET_SVCTIMEOUT", kTid);
  if (random.one_in(16)) walker.make("TRAN_DONE", kTid);
  walker.look_behind();
}

// A process for each image, so that an image's number is all that it takes to see it again.
int status_of(const std::function<void()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    alarm(is_long_run() ? 60 : 20);  // one that hangs dies
    body();
    _exit(0);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  return status;
}

testing::AssertionResult is_unharmed(int status, const Verdict& verdict) {
  const auto failed = [&](const char* what) {
    return testing::AssertionFailure()
           << what << " in " << verdict.call << ", which returned " << verdict.result
           << ", the longest call took " << verdict.longest / 1us << " us";
  };
  if (status != 0) return failed("died") << ", status " << status;
  if (verdict.undocumented) return failed("no documented code");
  if (verdict.wrote_behind) return failed("a write behind a segment");
  if (verdict.changed != nullptr)
    return failed("a write into others' parts") << ": " << verdict.changed;
  if (verdict.slow) return failed("too long");
  return testing::AssertionSuccess();
}

// ---- Hand-made ----

// What a damage may hit; the entry is kTid's.
struct Shown {
  TRAN_LOGF_QUE_INFO& info;
  SVC_HASH_TBL& svc;
  PTRC_HASH_TBL& ptrc;
  PTRC_HASH_ENT& entry;
};

struct Damage {
  const char* name;
  void (*make)(Shown s);
  std::string_view call;
  int tid;
  int result;
};

std::uint32_t& top_of(TableStack& stack) { return stack.numbers[stack.count - 1]; }

const Damage kDamages[] = {
    {"no queue", [](Shown s) { s.info.que_cnt = 0; }, "TRAN_INFO", kTid, 101},
    {"17 queues", [](Shown s) { s.info.que_cnt = 17; }, "TRAN_INFO", kTid, 101},
    {"-1 queues", [](Shown s) { s.info.que_cnt = -1; }, "TRAN_INFO", kTid, 101},
    {"mask of all bits", [](Shown s) { s.info.que_mask = 0xFFFFFFFF; }, "TRAN_INFO", kTid, 105},
    {"mask of high bits", [](Shown s) { s.info.que_mask = 0xFFFFFFF0; }, "TRAN_INFO", kTid, 105},
    {"not ready", [](Shown s) { s.info.magic_code = 1; }, "TRAN_INFO", kTid, 99},
    {"limits and depth of all bits", [](Shown s) { std::memset(&s.info.call_trc_depth, 0xFF, 32); },
     "TRAN_INFO", kTid, 0},
    {"free numbers beyond the stack", [](Shown s) { s.ptrc.free_stack.count = 10'001; },
     "TRAN_START", kLateTid, 116},
    {"-1 free numbers", [](Shown s) { s.ptrc.free_stack.count = 0xFFFFFFFF; }, "TRAN_START",
     kLateTid, 116},
    {"a free number behind the last entry", [](Shown s) { top_of(s.ptrc.free_stack) = 10'000; },
     "TRAN_START", kLateTid, 116},
    {"a negative free number", [](Shown s) { top_of(s.ptrc.free_stack) = 0x80000000; },
     "TRAN_START", kLateTid, 116},
    {"a free number in use",
     [](Shown s) { top_of(s.ptrc.free_stack) = static_cast<std::uint32_t>(s.entry.pidx); },
     "TRAN_START", kLateTid, 116},
    {"a chain that begins behind the last entry",
     [](Shown s) { s.ptrc.heads[chain_of(kLateTid)] = 10'000; }, "TRAN_START", kLateTid, 116},
    {"a chain that begins at -2", [](Shown s) { s.ptrc.heads[chain_of(kLateTid)] = -2; },
     "TRAN_START", kLateTid, 116},
    {"a chain that goes on anywhere",
     [](Shown s) {
       s.ptrc.heads[chain_of(kLateTid)] = s.entry.pidx;
       s.entry.next = INT32_MAX;
     },
     "TRAN_START", kLateTid, 116},
    {"a chain that is a loop",
     [](Shown s) {
       s.ptrc.heads[chain_of(kLateTid)] = s.entry.pidx;
       s.entry.next = s.entry.pidx;
     },
     "TRAN_START", kLateTid, 116},
    {"a loop of services",
     [](Shown s) {
       const int n = s.svc.heads[chain_of_service()];
       s.svc.entries[n].next = n;
       s.info.svc_filtering = 2;
     },
     "TRAN_PT_START", kTid, 0},
    {"services behind the table", [](Shown s) { s.svc.heads[chain_of_service()] = INT32_MAX; },
     "TRAN_START", kLateTid, 0},
    {"another process's entry", [](Shown s) { s.entry.ent_pid = 1; }, "TRAN_INFO", kTid, 118},
    {"another thread's entry", [](Shown s) { s.entry.ent_tid = 1; }, "TRAN_INFO", kTid, 118},
    {"-1 open calls", [](Shown s) { s.entry.call_top = -1; }, "TRAN_CALLINFO_S", kTid, 115},
    {"52 open calls", [](Shown s) { s.entry.call_top = 52; }, "TRAN_CALLINFO_F", kTid, 115},
    {"-2 open calls at an end", [](Shown s) { s.entry.call_top = -2; }, "TRAN_CALLINFO_F", kTid,
     115},
    {"127 open calls", [](Shown s) { s.entry.call_top = 127; }, "TRAN_SET_SQLCA_INFO", kTid, 115},
    {"nesting of -2", [](Shown s) { s.entry.call_nest = -3; }, "TRAN_CALLINFO_S", kTid, 115},
    {"6 statements", [](Shown s) { s.entry.sql_cnt = 6; }, "TRAN_SQL_STMT", kTid, 113},
    {"-1 statements", [](Shown s) { s.entry.sql_cnt = -1; }, "TRAN_SQL_STMT", kTid, 0},
    {"600 statements", [](Shown s) { s.entry.sql_cnt = 600; }, "TRAN_CALLINFO_F", kTid, 0},
    {"a statement of 32,767 bytes",
     [](Shown s) {
       s.entry.sql_cnt = 5;
       for (SqlEntry& sql : s.entry.sql_ent) sql.stmt_len = INT16_MAX;
     },
     "TRAN_CALLINFO_F", kTid, 0},
    {"statements of negative size",
     [](Shown s) {
       s.entry.sql_cnt = 5;
       for (SqlEntry& sql : s.entry.sql_ent) sql.stmt_len = -1;
     },
     "TRAN_CALLINFO_F", kTid, 0},
};

// In the last entry of the table, so that a text without an end is one up to the segment's.
void fill_with_text(FakeCollector& collector, PTRC_HASH_ENT& entry) {
  const std::int32_t pid = entry.ent_pid;
  const std::uint64_t tid = entry.ent_tid;
  char* const from = reinterpret_cast<char*>(&entry.main_gid);
  char* const end = reinterpret_cast<char*>(&collector.ptrc_tbl() + 1);
  std::memset(from, 'A', static_cast<std::size_t>(end - from));
  entry.ent_pid = pid;
  entry.ent_tid = tid;
  entry.ent_status = kEntInUse;
  entry.snapshot_state = kSnapshotArmed;
  entry.call_top = 1;
  entry.call_nest = 1;
  entry.call_stack[0].type = 'B';
  entry.dbio_rec_off = 0;
  entry.sql_limit_us = entry.dbio_limit_us = 0;
  entry.sql_cnt = 5;
  for (SqlEntry& sql : entry.sql_ent) sql.stmt_len = INT16_MAX;
}

// The process's own context, which claims the first entry, does not come into it.
void start_with_entry(FakeCollector& collector, Walker& walker, int tid) {
  ASSERT_EQ(TRAN_INIT(), 0);
  ASSERT_TRUE(is_sent(walker.make("TRAN_START", tid)));
  ASSERT_EQ(walker.make("TRAN_CALLINFO_S", tid), 0);
  ASSERT_EQ(walker.make("TRAN_SQL_STMT", tid), 0);
  ASSERT_NE(collector.entry_of(getpid(), static_cast<std::uint64_t>(tid)), nullptr);
}

TEST(Images, MadeByHandEndInTheirCodes) {
  for (const Damage& damage : kDamages) {
    SCOPED_TRACE(damage.name);
    FakeCollector collector;
    Image image(collector);
    EXPECT_TRUE(collector.run([&] {
      Verdict verdict = {};
      Walker walker(verdict);
      start_with_entry(collector, walker, kTid);
      damage.make({collector.que_info(), collector.svc_tbl(), collector.ptrc_tbl(),
                   *collector.entry_of(getpid(), kTid)});
      const int result = walker.make(damage.call, damage.tid);
      EXPECT_TRUE(result == damage.result || (damage.result == 0 && is_sent(result))) << result;
      for (const int tid : {kTid, kLateTid})
        for (const ExportedCall& call : kExportedCalls) walker.make(call, tid);
      walker.look_behind();
      EXPECT_TRUE(is_unharmed(0, verdict));
    }));
  }
}

TEST(Images, TextsWithoutAnEndAreShownUpToTheirWidth) {
  FakeCollector collector;
  EXPECT_TRUE(collector.run([&] {
    Verdict verdict = {};
    Walker walker(verdict);
    start_with_entry(collector, walker, 0);
    PTRC_HASH_ENT& entry = *collector.entry_of(getpid(), 0);
    ASSERT_EQ(&entry, std::end(collector.ptrc_tbl().entries) - 1);
    collector.read_all();
    int most = 0;
    for (const ExportedCall& call : kExportedCalls) {
      fill_with_text(collector, entry);
      if (is_stop(call.name)) continue;
      walker.make(call, 0);
      const int arrived = static_cast<int>(collector.read_all().size());
      EXPECT_LE(arrived, outcome_of(call.name).most_records) << call.name;
      most = std::max(most, arrived);
    }
    EXPECT_GT(most, 100) << "the statements were not shown";
    fill_with_text(collector, entry);
    walker.make("TRAN_SET_SVCTIMEOUT", 0);
    walker.look_behind();
    EXPECT_TRUE(is_unharmed(0, verdict));
  }));
}

// ---- At random ----

constexpr int kWorkers = 2;

TEST(Images, WhateverTheSegmentsHoldEveryCallComesBackInTime) {
  const int images = std::getenv("VARN_SEED") != nullptr ? kWorkers : rounds(kImages, 50);
  const std::uint64_t first = first_seed();
  FakeCollector collectors[kWorkers];
  std::vector<std::unique_ptr<ChildProcess>> workers;
  for (int w = 0; w < kWorkers; ++w)
    workers.push_back(collectors[w].start([&, w] {
      Image image(collectors[w]);
      const Shared<Verdict> verdict;
      for (int n = w; n < images && !testing::Test::HasFailure(); n += kWorkers) {
        const std::uint64_t seed = first + static_cast<std::uint64_t>(n);
        int status = 0;
        // A process that was kept from its processor is asked again.
        for (int tries = 0; tries < 3 && (tries == 0 || verdict->slow); ++tries) {
          image.restore();
          *verdict = {};
          status = status_of([&] { live_on(collectors[w], seed, *verdict); });
          verdict->changed = image.changed_part();
        }
        EXPECT_TRUE(is_unharmed(status, *verdict)) << "VARN_SEED=" << seed << " replays it";
      }
    }));
  for (const auto& worker : workers) EXPECT_TRUE(worker->wait(is_long_run() ? 7200s : 600s));
}

}  // namespace
}  // namespace varn::test
