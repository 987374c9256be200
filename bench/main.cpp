// What a traced call costs its thread, beside the bare send that it cannot do without.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/calls.h"
#include "bench/cpus.h"
#include "bench/goals.h"
#include "bench/stage.h"
#include "bench/table.h"
#include "bench/telegram.h"
#include "bench/timing.h"
#include "bench/writer.h"
#include "varn/tran.h"

namespace varn::bench {
namespace {

// Names for so many functions, hook_pair among them.
class NamedFunctions {
 public:
  explicit NamedFunctions(std::uint64_t count) : count_(count) {
    for (std::uint64_t n = 0; n < count_; ++n) TRAN_ADD_PROFILE(address(n), "check_limit");
  }
  ~NamedFunctions() {
    for (std::uint64_t n = 0; n < count_; ++n) TRAN_DEL_PROFILE(address(n));
  }
  NamedFunctions(const NamedFunctions&) = delete;
  NamedFunctions& operator=(const NamedFunctions&) = delete;

 private:
  static std::uint64_t address(std::uint64_t n) {
    return reinterpret_cast<std::uint64_t>(&hook_pair) + 16 * n;
  }
  const std::uint64_t count_;
};

// ---- Measuring ----

struct Conditions {
  const char* waiting_name = nullptr;  // in front of the name
  Waiting waiting = Waiting::kRest;
  std::uint8_t log_flags = kAllOn;
  int expected = TRAN_RC_OK;        // what each call has to return; the only queue has number 0
  bool in_service = false;          // calls are made inside an open service
  std::uint64_t call_limit_us = 0;  // shorter calls are not recorded
  int open_calls = 0;               // opened with the service
  int ended_calls = 0;              // opened before each batch, which ends them
  int named_functions = 0;
  int batch = 64;     // calls timed together; records of a batch find room on the queue
  int batches = 400;  // a run and thread
  std::chrono::microseconds pause{0};  // between batches, spent at work
  void (*undo)(int calls) = nullptr;   // what a batch left, untimed
  int telegrams = 0;                   // that each call has logged
  int repetitions = 0;                 // 0: as many as the command line says
};

struct Bench {
  Stage& stage;
  const std::vector<int> cpus;
  const double clock_ns;
};

void work_for(std::chrono::microseconds span) {
  for (const auto end = Clock::now() + span; Clock::now() < end;) {
  }
}

template <typename Call>
void measure(benchmark::State& state, const Bench& bench, const Conditions& conditions, Call call) {
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(conditions.batches));
  int wrong = 0;
  run_on(bench.cpus[static_cast<std::size_t>(state.thread_index()) % bench.cpus.size()]);
  std::optional<NamedFunctions> names;
  if (state.thread_index() == 0 && conditions.named_functions > 0)
    names.emplace(static_cast<std::uint64_t>(conditions.named_functions));
  // All threads pass a barrier before the first turn and one behind the last.
  if (state.thread_index() == 0)
    bench.stage.begin(conditions.waiting, conditions.log_flags, conditions.call_limit_us,
                      conditions.telegrams > 0);
  for (auto _ : state) {
    if (samples.empty() && conditions.in_service) {
      start_service();
      for (int i = 0; i < conditions.open_calls; ++i) call_start();
    }
    for (int i = 0; i < conditions.ended_calls; ++i) call_start();
    const auto start = Clock::now();
    for (int i = 0; i < conditions.batch; ++i) wrong += call() != conditions.expected;
    const double span = ns_since(start);
    samples.push_back(std::max(0.0, span - bench.clock_ns) / conditions.batch);
    state.SetIterationTime(samples.back() * 1e-9);
    if (conditions.undo != nullptr) conditions.undo(conditions.batch);
    bench.stage.wait_for_room();
    if (conditions.pause.count() > 0) work_for(conditions.pause);
  }
  if (conditions.in_service) end_service();
  const std::int64_t calls = std::int64_t{state.threads()} * conditions.batches * conditions.batch;
  if (state.thread_index() == 0 && !bench.stage.end(calls * conditions.telegrams))
    state.SkipWithError("telegrams did not get into the file");
  if (wrong > 0)
    state.SkipWithError(
        (std::to_string(wrong) + " calls did not return " + std::to_string(conditions.expected))
            .c_str());
  state.counters[kMedian] = {percentile(samples, 0.5), benchmark::Counter::kAvgThreads};
  state.counters[kP99] = {percentile(samples, 0.99), benchmark::Counter::kAvgThreads};
}

template <typename Call>
void add(const Bench& bench, const char* name, const Conditions& conditions, Call call) {
  const bool paced = conditions.waiting_name != nullptr;
  auto* const added = benchmark::RegisterBenchmark(
      (paced ? under(conditions.waiting_name, name) : std::string(name)).c_str(),
      [&bench, conditions, call](benchmark::State& state) {
        measure(state, bench, conditions, call);
      });
  added->UseManualTime()->Iterations(conditions.batches)->Threads(1);
  if (!paced) added->Threads(2);
  if (conditions.repetitions > 0) added->Repetitions(conditions.repetitions);
}

// Of what is timed as a whole: nanoseconds a record, or nothing.
template <typename Measurement>
void add_whole(const char* name, int repetitions, Measurement measurement) {
  benchmark::RegisterBenchmark(name,
                               [measurement](benchmark::State& state) {
                                 for (auto _ : state) {
                                   const std::optional<double> ns = measurement();
                                   state.SetIterationTime(ns.value_or(0) * 1e-9);
                                   if (ns) state.counters[kMedian] = *ns;
                                 }
                               })
      ->UseManualTime()
      ->Iterations(1)
      ->Repetitions(repetitions);
}

// The writer may look for telegrams only 300 ms after they were queued, and the next row waits for
// it: fewer repetitions than of others.
constexpr int kTelegramRepetitions = 9;

void add_telegrams(const Bench& bench) {
  constexpr int kLevels = 10;
  const auto end_services = [](int calls) {
    for (int i = 0; i < calls; ++i) end_plainly();
  };
  const auto free_at_once = [](int) { copied_records.free_all(); };
  const auto free_at_end = [](int) {
    if (copied_records.is_full()) copied_records.free_all();
  };
  const auto plain_pair = [] { return start_plainly() | end_plainly(); };
  const auto telegram_pair = [] { return start_by_telegram() | end_by_telegram(); };

  Conditions copies{.batch = 32, .batches = 200, .undo = free_at_end};
  add(bench, kCopyToNew, copies, allocate_and_copy);
  copies.undo = free_at_once;
  add(bench, kCopyToUsed, copies, allocate_and_copy);
  Conditions off{.log_flags = kAllOff, .expected = TRAN_RC_SWITCHED_OFF, .batch = 32};
  off.batches = 200;
  add(bench, kTelegramOff, off, start_by_telegram);
  off.telegrams = 1;
  off.repetitions = kTelegramRepetitions;
  add(bench, kTelegramLogged, off, start_by_telegram);

  Conditions start{.batch = kLevels, .batches = 100, .undo = end_services};
  add(bench, kPlainStart, start, start_plainly);
  add(bench, kTelegramStart, start, start_by_telegram);
  start.telegrams = 1;
  start.repetitions = kTelegramRepetitions;
  add(bench, kLoggedStart, start, start_by_telegram);

  Conditions pair{.batch = 16, .batches = 100};
  add(bench, kPlainPair, pair, plain_pair);
  add(bench, kTelegramPair, pair, telegram_pair);
  pair.telegrams = 2;
  pair.repetitions = kTelegramRepetitions;
  add(bench, kLoggedPair, pair, telegram_pair);

  constexpr int kDrained = 20'000;
  add_whole(kDrain, kTelegramRepetitions, [&bench] {
    run_on(bench.cpus.front());
    return drain_ns(bench.stage, kDrained);
  });
  add_whole(kBareWrite, kTelegramRepetitions, [&bench] {
    run_on(bench.cpus.back());
    return std::optional(bare_write_ns(bench.stage, kDrained));
  });
}

void add_all(const Bench& bench) {
  const auto send = [id = bench.stage.msgq_id()] { return bare_send(id); };
  const auto pair = [] { return start_service() | end_service(); };
  const auto errinfo_here = [] { return errinfo(-1); };
  // Each time another number than the last, the two of them this thread's own.
  const auto errinfo_other = [] {
    static std::atomic<int> last_number;
    thread_local const int number = last_number.fetch_add(2) % 200 + 1;
    thread_local int turn = 0;
    return errinfo(number + (turn ^= 1));
  };

  add(bench, kBareSend, {}, send);
  add(bench, kInfo, {.in_service = true}, [] { return info(); });
  add(bench, kPair, {.batch = 32}, pair);

  Conditions off{.log_flags = kAllOff, .expected = TRAN_RC_SWITCHED_OFF, .batch = 2048};
  add(bench, kCheck, off, [] { return check_gvar('I'); });
  add(bench, kInfoOff, off, [] { return info(); });
  add(bench, kPairOff, off, pair);
  const Conditions floor{.expected = -1, .batch = 2048};
  add(bench, kEmptyCall, floor, [] { return empty_call(-1 ALL_TEXTS); });
  add(bench, kErrInfoOff, off, errinfo_here);
  const Conditions no_service{.expected = TRAN_RC_DEPTH, .batch = 2048};
  add(bench, kErrInfoNoService, no_service, errinfo_here);
  add(bench, kErrInfoOtherThread, no_service, errinfo_other);

  constexpr std::uint64_t kNever = 1'000'000'000;  // calls take no thousand seconds
  add(bench, kTwoClockReads, {.batch = 2048}, two_clock_reads);
  Conditions below{.expected = TRAN_RC_CALL_SHORT, .in_service = true, .call_limit_us = kNever};
  below.batch = 512;
  add(bench, kCallPair, below, [] { return call_pair(); });
  below.open_calls = 40;
  add(bench, kDeepCallPair, below, [] { return call_pair(); });
  below.open_calls = 0;
  Conditions ends{.in_service = true, .ended_calls = 40};
  ends.batch = ends.ended_calls;
  add(bench, kCallEnd, ends, [] { return call_end(); });
  below.expected = 0;
  for (const auto& [name, functions] :
       {std::pair{kHookPair, 10}, std::pair{kHookPairOfMany, 100'000}}) {
    below.named_functions = functions;
    add(bench, name, below, [] {
      hook_pair();
      return 0;
    });
  }

  struct {
    const char* name;
    Waiting waiting;
  } const ways[] = {
      {kResting, Waiting::kRest}, {kBlocking, Waiting::kBlock}, {kPolling, Waiting::kPoll}};
  for (const auto& way : ways) {
    Conditions paced{.waiting_name = way.name, .waiting = way.waiting, .batch = 1, .batches = 1000};
    paced.pause = std::chrono::microseconds(50);
    add(bench, kBareSend, paced, send);
    paced.in_service = true;
    add(bench, kInfo, paced, [] { return info(); });
  }
}

constexpr std::string_view kForGoals = "--goals";  // as the first argument

int run(int argc, char** argv) {
  const bool for_goals = argc > 1 && argv[1] == kForGoals;
  // The program's own settings first: those of the command line override them.
  std::vector<std::string> settings = {
      argv[0], "--benchmark_enable_random_interleaving=true",
      for_goals ? "--benchmark_repetitions=15" : "--benchmark_repetitions=21"};
  settings.insert(settings.end(), argv + (for_goals ? 2 : 1), argv + argc);
  std::vector<char*> pointers;
  for (std::string& setting : settings) pointers.push_back(setting.data());
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
  if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) return EXIT_FAILURE;

  const std::vector<int> cpus = usable_cpus();
  if (for_goals) return run_goals(cpus);
  Stage stage(cpus.back(), 1);
  const Bench bench{stage, cpus, clock_ns()};
  add_all(bench);
  add_telegrams(bench);
  Table table;
  if (benchmark::RunSpecifiedBenchmarks(&table) == 0) return EXIT_FAILURE;
  if (const std::uint32_t lost = stage.failed_sends(); lost > 0 || table.failed()) {
    std::fprintf(stderr, "varn_bench: not to be used: %u records found no room, see above\n", lost);
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace varn::bench

int main(int argc, char** argv) {
  try {
    return varn::bench::run(argc, argv);
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "varn_bench: %s\n", fault.what());
    return EXIT_FAILURE;
  }
}
