// What the benchmarks found, as tables: each cost in nanoseconds and as a ratio to the bare send
// under the same conditions.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace varn::bench {

// Names of the runs. Those under a waiting mode have its name in front.
inline constexpr char kBareSend[] = "msgsnd alone";
inline constexpr char kInfo[] = "TRAN_INFO";
inline constexpr char kPair[] = "TRAN_START and TRAN_END";
inline constexpr char kCheck[] = "check_gvar";
inline constexpr char kInfoOff[] = "TRAN_INFO, switched off";
inline constexpr char kPairOff[] = "TRAN_START and TRAN_END, switched off";
inline constexpr char kEmptyCall[] = "an empty function";
inline constexpr char kErrInfoOff[] = "TRAN_ERRINFO, switched off";
inline constexpr char kErrInfoNoService[] = "TRAN_ERRINFO, no service";
inline constexpr char kErrInfoOtherThread[] = "TRAN_ERRINFO, no service, other thread number";

inline constexpr char kTwoClockReads[] = "gettimeofday twice";
inline constexpr char kCallPair[] = "call start and end";
inline constexpr char kDeepCallPair[] = "call start and end, 41 deep";
inline constexpr char kCallEnd[] = "call end, recorded";
inline constexpr char kHookPair[] = "hook pair";
inline constexpr char kHookPairOfMany[] = "hook pair, 100,000 names";

inline constexpr char kCopyToNew[] = "malloc and memcpy, new memory";
inline constexpr char kCopyToUsed[] = "malloc and memcpy, memory used before";
inline constexpr char kTelegramOff[] = "TRAN_STARTX, switched off";
inline constexpr char kTelegramLogged[] = "TRAN_STARTX, switched off, telegram logged";
inline constexpr char kPlainStart[] = "TRAN_START, a telegram's texts";
inline constexpr char kTelegramStart[] = "TRAN_STARTX";
inline constexpr char kLoggedStart[] = "TRAN_STARTX, telegram logged";
inline constexpr char kPlainPair[] = "TRAN_START and TRAN_END, a telegram's texts";
inline constexpr char kTelegramPair[] = "TRAN_STARTX and TRAN_ENDX";
inline constexpr char kLoggedPair[] = "TRAN_STARTX and TRAN_ENDX, telegrams logged";
inline constexpr char kBareWrite[] = "fwrite and fflush";
inline constexpr char kDrain[] = "writer";

inline constexpr char kResting[] = "resting";
inline constexpr char kBlocking[] = "blocking";
inline constexpr char kPolling[] = "polling";
inline std::string under(const char* waiting, const char* name) {
  return std::string(waiting) + ": " + name;
}

// Counters of a run, nanoseconds a call.
inline constexpr char kMedian[] = "median_ns";
inline constexpr char kP99[] = "p99_ns";

class Table : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

  bool failed() const { return failed_; }

 private:
  using Key = std::pair<std::string, std::int64_t>;  // name and threads

  // Median over the repetitions; NaN for what was not run.
  double cost(const std::string& name, std::int64_t threads, const char* counter = kMedian) const;
  void print_calls();
  void print_telegrams();
  void print_writer();
  void print_waiting();

  std::map<std::string, std::map<Key, std::vector<double>>> samples_;  // by counter
  std::size_t repetitions_ = 0;
  bool failed_ = false;
};

}  // namespace varn::bench
