#include "bench/table.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <ostream>

namespace varn::bench {
namespace {

double median(std::vector<double> values) {
  if (values.empty()) return std::numeric_limits<double>::quiet_NaN();
  std::ranges::sort(values);
  const std::size_t half = values.size() / 2;
  return values.size() % 2 != 0 ? values[half] : (values[half - 1] + values[half]) / 2;
}

std::string number(double value, int decimals) {
  char text[32] = "-";
  if (!std::isnan(value)) std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string nanoseconds(double value) { return number(value, value < 100 ? 1 : 0); }

std::string cell(const std::string& text, int width) {
  const auto columns = static_cast<std::size_t>(width);
  return text.size() < columns ? std::string(columns - text.size(), ' ') + text : text;
}

std::string label(const std::string& text) {
  constexpr std::size_t kWidth = 52;
  return text.size() < kWidth ? text + std::string(kWidth - text.size(), ' ') : text;
}

}  // namespace

bool Table::ReportContext(const Context& context) {
  PrintBasicContext(&GetErrorStream(), context);
  return true;
}

void Table::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.error_occurred) {
      failed_ = true;
      GetErrorStream() << run.benchmark_name() << ": " << run.error_message << '\n';
      continue;
    }
    if (run.run_type != Run::RT_Iteration) continue;
    for (const auto& [counter, value] : run.counters) {
      auto& values = samples_[counter][{run.run_name.function_name, run.threads}];
      values.push_back(value.value);
      repetitions_ = std::max(repetitions_, values.size());
    }
  }
}

void Table::Finalize() {
  print_calls();
  print_telegrams();
  print_writer();
  print_waiting();
}

double Table::cost(const std::string& name, std::int64_t threads, const char* counter) const {
  const auto found = samples_.find(counter);
  if (found == samples_.end()) return median({});
  const auto values = found->second.find({name, threads});
  return median(values == found->second.end() ? std::vector<double>{} : values->second);
}

void Table::print_calls() {
  std::ostream& out = GetOutputStream();
  out << "\nWhat a call costs its thread: nanoseconds, and as a ratio to the bare send of the "
         "same\n"
         "784 bytes to the same queue by as many threads. The reader rests between its batches.\n"
         "Medians of "
      << repetitions_ << " interleaved repetitions.\n\n"
      << label("") << cell("one thread", 18) << cell("two threads", 20) << '\n';
  const auto row = [&](const std::string& text, auto cost_of) {
    out << label(text);
    for (const int threads : {1, 2}) {
      const double ns = cost_of(threads);
      out << cell(nanoseconds(ns), threads == 1 ? 10 : 12)
          << cell(number(ns / cost(kBareSend, threads), ns < 100 ? 3 : 2), 8);
    }
    out << '\n';
  };
  const auto cost_of = [this](const char* name) {
    return [this, name](int threads) { return cost(name, threads); };
  };
  row("msgsnd alone, never waiting", cost_of(kBareSend));
  row("TRAN_INFO, sent", cost_of(kInfo));
  row("TRAN_START and TRAN_END, both sent", cost_of(kPair));
  row("  per record", [this](int threads) { return cost(kPair, threads) / 2; });
  row("check_gvar", cost_of(kCheck));
  row("TRAN_INFO, its kind switched off", cost_of(kInfoOff));
  row("TRAN_START and TRAN_END, their kind switched off", cost_of(kPairOff));
  row("  per call", [this](int threads) { return cost(kPairOff, threads) / 2; });
  row("  an empty function with these arguments", cost_of(kEmptyCall));
  row("gettimeofday twice", cost_of(kTwoClockReads));
  row("call start and end, below the limit", cost_of(kCallPair));
  row("  inside 40 open calls", cost_of(kDeepCallPair));
  row("call end, recorded", cost_of(kCallEnd));
  row("instrumentation hooks, below the limit, 10 names", cost_of(kHookPair));
  row("  100,000 names", cost_of(kHookPairOfMany));
  row("finding the thread's context, same thread as before", [this](int threads) {
    return cost(kErrInfoNoService, threads) - cost(kErrInfoOff, threads);
  });
  row("finding the thread's context, another thread number", [this](int threads) {
    return cost(kErrInfoOtherThread, threads) - cost(kErrInfoOff, threads);
  });
}

void Table::print_telegrams() {
  std::ostream& out = GetOutputStream();
  out << "\nWhat a whole telegram of 2,048 bytes costs the thread that gives it: nanoseconds a "
         "call, "
         "and as a\nratio to what is named in brackets, of as many threads.\n\n"
      << label("") << cell("one thread", 18) << cell("two threads", 20) << '\n';
  const auto row = [&](const std::string& text, auto cost_of, auto reference) {
    out << label(text);
    for (const int threads : {1, 2}) {
      const double ns = cost_of(threads);
      out << cell(nanoseconds(ns), threads == 1 ? 10 : 12)
          << cell(number(ns / reference(threads), 2), 8);
    }
    out << '\n';
  };
  const auto cost_of = [this](const char* name, int calls = 1) {
    return [this, name, calls](int threads) { return cost(name, threads) / calls; };
  };
  const auto logging = [this](int threads) {
    return cost(kTelegramLogged, threads) - cost(kTelegramOff, threads);
  };
  const auto with_logging = [logging](auto plain) {
    return [logging, plain](int threads) { return plain(threads) + logging(threads); };
  };
  const auto copy = cost_of(kCopyToNew);
  row("malloc and memcpy of its record, memory used before", cost_of(kCopyToUsed), copy);
  row("malloc and memcpy of its record, new memory (1)", copy, copy);
  row("logging a telegram (1)", logging, copy);
  const auto start = cost_of(kPlainStart);
  row("TRAN_START with its texts (2)", start, start);
  row("TRAN_STARTX, its kind switched off (2)", cost_of(kTelegramOff), start);
  row("TRAN_STARTX, not logged (2)", cost_of(kTelegramStart), start);
  row("TRAN_STARTX, logged (2 and logging)", cost_of(kLoggedStart), with_logging(start));
  const auto pair = cost_of(kPlainPair, 2);
  row("TRAN_START and TRAN_END, per record (3)", pair, pair);
  row("TRAN_STARTX and TRAN_ENDX, not logged (3)", cost_of(kTelegramPair, 2), pair);
  row("TRAN_STARTX and TRAN_ENDX, logged (3 and logging)", cost_of(kLoggedPair, 2),
      with_logging(pair));
}

void Table::print_writer() {
  std::ostream& out = GetOutputStream();
  out << "\nHow fast queued telegrams get into their file: nanoseconds a record, and the speed as "
         "a\n"
         "ratio to that of fwrite and fflush of as many records.\n\n";
  const double bare = cost(kBareWrite, 1);
  for (const char* const name : {kBareWrite, kDrain})
    out << label(name) << cell(nanoseconds(cost(name, 1)), 10)
        << cell(number(bare / cost(name, 1), 2), 8) << '\n';
}

void Table::print_waiting() {
  std::ostream& out = GetOutputStream();
  out << "\nWhat a thread pays when the reader waits in this way: nanoseconds of one send (99th\n"
         "percentile in brackets), one thread, a record every 50 microseconds; ratio to the bare\n"
         "send while the reader rests.\n\n"
      << label("") << cell("msgsnd alone", 24) << cell("TRAN_INFO", 26) << '\n';
  const double bare = cost(under(kResting, kBareSend), 1);
  for (const char* const waiting : {kResting, kBlocking, kPolling}) {
    out << label(waiting);
    for (const char* const call : {kBareSend, kInfo}) {
      const std::string name = under(waiting, call);
      const double ns = cost(name, 1);
      out << cell(nanoseconds(ns), call == kInfo ? 11 : 9)
          << cell("(" + nanoseconds(cost(name, 1, kP99)) + ")", 8) << cell(number(ns / bare, 2), 7);
    }
    out << '\n';
  }
}

}  // namespace varn::bench
