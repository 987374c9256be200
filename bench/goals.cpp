#include "bench/goals.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "bench/calls.h"
#include "bench/cpus.h"
#include "bench/empty_calls.h"
#include "bench/stage.h"
#include "bench/telegram.h"
#include "bench/timing.h"
#include "hash/hash.h"

namespace varn::bench {
namespace {

constexpr std::uint64_t kNever = 1'000'000'000;  // calls take no thousand seconds

// ---- Further calls ----

// Transactions whose records go to the first of two queues, and to the second.
constexpr std::size_t kHashedPart = 30;
constexpr std::string_view kGids[] = {"202611220930WEB010000000000001",
                                      "202611220930WEB010000000000002"};
static_assert(get_hidx(kTexts.gid, kHashedPart, 1) == 0);
static_assert(get_hidx(kGids[0].data(), kHashedPart, 1) == 0);
static_assert(get_hidx(kGids[1].data(), kHashedPart, 1) == 1);

int info_of(std::string_view gid) {
  return TRAN_INFO(-1, NONE, NONE, gid.data(), int{kHashedPart}, "TRANSFER", 8, NONE, NONE, NONE,
                   kMessageText, sizeof kMessageText - 1);
}

int event() {
  return TRAN_EVENT(-1, NONE, NONE, kTexts.gid, sizeof kTexts.gid - 1, NONE, NONE, NONE, NONE,
                    "2001", 4, "ACCT00000001", 12, "WEB1", 4, kMessageText,
                    sizeof kMessageText - 1);
}

int database_start() {
  return TRAN_CALLINFO_S(-1, NO_HEAD, NONE, NONE, 0, 0, "db_select", 9, NONE);
}
int database_end() {
  return TRAN_CALLINFO_F(-1, NO_HEAD, "select.pc", 9, NONE, 42, 0, "db_select", 9, NONE);
}
int database_start_with_statement() {
  return database_start() |
         TRAN_SQL_STMT(
             -1, TRAN_SQL_ADD, NONE, NONE, 1, nullptr, nullptr,
             "SELECT balance, currency, opened FROM account WHERE branch = :1 AND no = :2");
}

// With every text, those that a plain start leaves to the agent too.
consteval const char* given_text(std::string_view name, const char* text) {
  if (name == "pid_str") return "00001234";
  if (name == "date_str") return "20261122";
  if (name == "time_str") return "093000123456";
  return text;
}
int start_with_all_texts() {
#define VARN_GIVEN(name, width) , given_text(#name, kTexts.name), width
  return TRAN_START(-1 TRAN_FIELD_LIST(VARN_GIVEN));
#undef VARN_GIVEN
}

int empty_info_call() { return empty_info(-1, NO_HEAD, kMessageText, sizeof kMessageText - 1); }
int empty_start_call() { return empty_start(-1 ALL_TEXTS); }

int hooks() {
  hook_pair();
  return 0;
}
int empty_hooks() {
  const auto function = reinterpret_cast<void*>(&empty_hooks);
  empty_func_enter(function, nullptr);
  empty_func_exit(function, nullptr);
  return 0;
}

// ---- Measuring ----

// A second thread, on a processor of its own. It sleeps unless it has a job, since the reader
// shares that processor.
class Partner {
 public:
  using Job = std::function<double()>;

  explicit Partner(int cpu) : thread_([this, cpu] { serve(cpu); }) {}
  ~Partner() {
    ask(nullptr);
    thread_.join();
  }
  Partner(const Partner&) = delete;
  Partner& operator=(const Partner&) = delete;

  // What the job returns.
  double alone(Job job) {
    together(std::move(job), [] { return 0.0; });
    return answer_;
  }

  // The mean of what the jobs return, the second of them in the calling thread. They begin at the
  // same time.
  double together(Job job, const Job& own_job) {
    const int turn = ask(std::move(job));
    wait_for(ready_, turn);
    begun_.store(turn);
    const double own = own_job();
    wait_for(done_, turn);
    return (own + answer_) / 2;
  }

 private:
  static void wait_for(const std::atomic<int>& reached, int turn) {
    while (reached.load() != turn) __builtin_ia32_pause();
  }

  int ask(Job job) {
    job_ = std::move(job);
    const int turn = ++asked_;
    asked_.notify_one();
    return turn;
  }

  void serve(int cpu) {
    run_on(cpu);
    for (int turn = 1;; ++turn) {
      asked_.wait(turn - 1);
      if (job_ == nullptr) return;
      ready_.store(turn);
      wait_for(begun_, turn);
      answer_ = job_();
      done_.store(turn);
    }
  }

  Job job_;
  double answer_ = 0;
  std::atomic<int> asked_, ready_, begun_, done_;
  std::thread thread_;
};

struct Bench {
  Stage& stage;
  Partner& partner;
  const int cpu;
  const double clock_ns;
};

// What one repetition finds.
struct Found {
  std::vector<double> row_ns;
  std::vector<double> floor_ns;
  std::atomic<int> wrong = 0;  // calls that did not return what they have to
};

// Nanoseconds a call.
template <typename Call>
double timed(const Bench& bench, int batch, int expected, Found& found, Call call) {
  int wrong = 0;
  const auto start = Clock::now();
  for (int i = 0; i < batch; ++i) wrong += call() != expected;
  const double span = ns_since(start) - bench.clock_ns;
  found.wrong += wrong;
  return span / batch;
}

// Swaps what comes first from turn to turn: a batch may find what its neighbour left.
template <typename First, typename Second>
void in_turn(int turn, First first, Second second) {
  if (turn % 2 == 0) first();
  second();
  if (turn % 2 != 0) first();
}

template <typename Repetition>
void add(const char* name, Repetition repetition) {
  benchmark::RegisterBenchmark(
      name,
      [repetition](benchmark::State& state) {
        Found found;
        for (auto _ : state) {
          repetition(found);
          state.SetIterationTime(percentile(found.row_ns, 0.5) * 1e-9);
        }
        state.counters["ns"] = percentile(found.row_ns, 0.5);
        state.counters["floor_ns"] = percentile(found.floor_ns, 0.5);
        if (found.wrong > 0)
          state.SkipWithError(
              (std::to_string(found.wrong) + " calls did not return what they have to").c_str());
      })
      ->UseManualTime()
      ->Iterations(1);
}

struct Terms {
  int expected = TRAN_RC_OK;  // what each call has to return, or the number of the first queue
  int floor_expected = 0;
  int batch = 64;   // calls timed together; records of a batch find room on the queue
  int turns = 300;  // batches of the row, and of the floor
  void (*prepare)(int calls) = nullptr;  // before a batch of the row, untimed
  void (*undo)(int calls) = nullptr;     // behind it
  std::uint8_t log_flags = kAllOn;
  std::uint64_t call_limit_us = 0;  // shorter calls are not recorded
  bool in_service = false;
  bool agent_started = true;
  bool queue_full = false;
};

void begin(const Bench& bench, const Terms& terms) {
  bench.stage.begin(Waiting::kRest, terms.log_flags, terms.call_limit_us, false);
  if (!terms.agent_started) bench.stage.stop_agent();
  if (terms.in_service) start_service();
  if (terms.queue_full) bench.stage.fill();
  run_on(bench.cpu);
}

void end(const Bench& bench, const Terms& terms) {
  if (terms.queue_full) bench.stage.begin(Waiting::kRest, kAllOn, 0, false);
  bench.stage.wait_for_room();
  if (terms.in_service) end_service();
  if (!terms.agent_started) bench.stage.start_agent();
  bench.stage.end(0);
}

template <typename Row, typename Floor>
void add_row(const Bench& bench, const char* name, const Terms& terms, Row row, Floor floor) {
  add(name, [&bench, terms, row, floor](Found& found) {
    begin(bench, terms);
    for (int turn = 0; turn < terms.turns; ++turn) {
      in_turn(
          turn,
          [&] {
            if (terms.prepare != nullptr) terms.prepare(terms.batch);
            found.row_ns.push_back(timed(bench, terms.batch, terms.expected, found, row));
            if (terms.undo != nullptr) terms.undo(terms.batch);
          },
          [&] {
            found.floor_ns.push_back(timed(bench, terms.batch, terms.floor_expected, found, floor));
          });
      if (!terms.queue_full) bench.stage.wait_for_room();
    }
    end(bench, terms);
  });
}

// Each of two threads inside a service of its own, under these thread numbers.
void add_call_pairs_of_two_threads(const Bench& bench, const char* name, int tid, int other_tid) {
  add(name, [&bench, tid, other_tid](Found& found) {
    constexpr int kTurns = 100;
    const Terms terms{.call_limit_us = kNever};
    begin(bench, terms);
    const auto pairs_of = [&](int of_tid) {
      return [&bench, &found, of_tid] {
        constexpr int kBatch = 512;
        return timed(bench, kBatch, TRAN_RC_CALL_SHORT, found,
                     [of_tid] { return call_pair(of_tid); });
      };
    };
    start_service(tid);
    bench.partner.alone([other_tid] { return start_service(other_tid); });
    for (int turn = 0; turn < kTurns; ++turn)
      in_turn(
          turn,
          [&] {
            found.row_ns.push_back(bench.partner.together(pairs_of(other_tid), pairs_of(tid)));
          },
          [&] {
            const double own = pairs_of(tid)();
            found.floor_ns.push_back((own + bench.partner.alone(pairs_of(other_tid))) / 2);
          });
    bench.partner.alone([other_tid] { return end_service(other_tid); });
    end_service(tid);
    end(bench, terms);
  });
}

void add_two_senders(const Bench& bench, const char* name) {
  add(name, [&bench](Found& found) {
    constexpr int kTurns = 300;
    begin(bench, {});
    const auto sends_to = [&](int queue, auto send) {
      return [&bench, &found, queue, send] {
        constexpr int kBatch = 64;
        return timed(bench, kBatch, queue, found, send);
      };
    };
    const auto records_to = [&](int queue) {
      return sends_to(queue, [queue] { return info_of(kGids[queue]); });
    };
    const auto bare_sends_to = [&](int queue) {
      return sends_to(queue, [id = bench.stage.msgq_id(queue), queue] {
        return bare_send(id) == 0 ? queue : -1;
      });
    };
    for (int turn = 0; turn < kTurns; ++turn) {
      in_turn(
          turn,
          [&] { found.row_ns.push_back(bench.partner.together(records_to(1), records_to(0))); },
          [&] {
            found.floor_ns.push_back(bench.partner.together(bare_sends_to(1), bare_sends_to(0)));
          });
      bench.stage.wait_for_room();
    }
    end(bench, {});
  });
}

// What a telegram's log adds to a call, beside new memory for as much and a copy into it.
void add_telegram(const Bench& bench, const char* name) {
  add(name, [&bench](Found& found) {
    constexpr int kTurns = 150;
    constexpr int kBatch = 32;
    const Terms terms{.log_flags = kAllOff};
    begin(bench, terms);
    const auto calls = [&](bool logged) {
      bench.stage.log_telegrams(logged);
      return timed(bench, kBatch, TRAN_RC_SWITCHED_OFF, found, start_by_telegram);
    };
    for (int turn = 0; turn < kTurns; ++turn)
      in_turn(
          turn, [&] { found.row_ns.push_back(calls(true) - calls(false)); },
          [&] {
            found.floor_ns.push_back(timed(bench, kBatch, TRAN_RC_OK, found, allocate_and_copy));
          });
    copied_records.free_all();
    if (!bench.stage.end(kTurns * kBatch)) ++found.wrong;
  });
}

void add_all(const Bench& bench) {
  const auto one_send = [id = bench.stage.msgq_id()] { return bare_send(id); };
  const auto two_sends = [one_send] { return one_send() | one_send(); };

  Terms alone{.batch = 1, .turns = 4000};
  alone.undo = [](int) { end_service(); };
  add_row(
      bench, "start", alone, [] { return start_service(); }, one_send);
  alone.undo = nullptr;
  alone.prepare = [](int) { start_service(); };
  add_row(
      bench, "end", alone, [] { return end_service(); }, one_send);
  add_row(
      bench, "info", {.in_service = true}, [] { return info(); }, one_send);
  add_row(bench, "event", {}, event, one_send);
  Terms calls{.batch = 40, .in_service = true};
  calls.prepare = [](int count) {
    for (int i = 0; i < count; ++i) call_start();
  };
  add_row(
      bench, "business call end", calls, [] { return call_end(); }, one_send);
  alone.in_service = true;
  alone.prepare = [](int) { database_start(); };
  add_row(bench, "database call end", alone, database_end, one_send);
  alone.prepare = [](int) { database_start_with_statement(); };
  add_row(bench, "SQL piece and its call's end", alone, database_end, two_sends);

  Terms full{.expected = TRAN_RC_NOT_SENT, .floor_expected = -1};
  full.in_service = full.queue_full = true;
  add_row(
      bench, "full queue", full, [] { return info(); }, one_send);

  Terms pairs{.expected = TRAN_RC_CALL_SHORT, .batch = 512, .call_limit_us = kNever};
  pairs.in_service = true;
  add_row(
      bench, "call pair", pairs, [] { return call_pair(); }, two_clock_reads);
  add_call_pairs_of_two_threads(bench, "two threads, one bucket", 0x101, 0x201);
  add_call_pairs_of_two_threads(bench, "two threads, two buckets", 0x101, 0x102);
  add_two_senders(bench, "two senders");

  Terms refused{.expected = TRAN_RC_SWITCHED_OFF, .floor_expected = -1, .batch = 2048};
  refused.turns = 100;
  refused.log_flags = kAllOff;
  add_row(
      bench, "kind off, few arguments", refused, [] { return info(); }, empty_info_call);
  add_row(
      bench, "kind off, 59 arguments", refused, [] { return start_service(); }, empty_start_call);
  refused.log_flags = kAllOn;
  refused.agent_started = false;
  refused.expected = TRAN_RC_NOT_STARTED;
  add_row(
      bench, "not started, few arguments", refused, [] { return info(); }, empty_info_call);
  add_row(
      bench, "not started, 59 arguments", refused, [] { return start_service(); },
      empty_start_call);
  refused.expected = refused.floor_expected = 0;
  add_row(bench, "hook pair, not started", refused, hooks, empty_hooks);

  Terms service{.batch = 32};
  add_row(
      bench, "whole service", service, [] { return start_with_all_texts() | end_service(); },
      two_sends);
  add_telegram(bench, "telegram");
}

}  // namespace

int run_goals(const std::vector<int>& cpus) {
  constexpr int kQueues = 2;
  Stage stage(cpus.back(), kQueues);
  Partner partner(cpus.back());
  const Bench bench{stage, partner, cpus.front(), clock_ns()};
  add_all(bench);
  return benchmark::RunSpecifiedBenchmarks() == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace varn::bench
