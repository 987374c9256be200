// Processes that die in the middle of making an entry, or share an entry with another at once.
#include <sched.h>
#include <sys/ptrace.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <atomic>

#include "hash/get_ptrc_hash.h"
#include "hash/hash.h"
#include "hostile/outcomes.h"
#include "process/calls.h"
#include "records/calls.h"
#include "support/sound_table.h"
#include "util/text.h"

namespace {

// The making of an entry lies between taking the table's semaphore and giving it back. A process
// stops itself at both, the so-manieth time.
int stop_at = 0;
int taken = 0;

void stop_here() {
  if (taken == stop_at) raise(SIGSTOP);
}

}  // namespace

// Take the places of the C library's for everything in the process.
extern "C" [[gnu::visibility("default")]] int semtimedop(int id, sembuf* steps, std::size_t count,
                                                         const timespec* limit) noexcept {
  ++taken;
  stop_here();
  return static_cast<int>(syscall(SYS_semtimedop, id, steps, count, limit));
}
extern "C" [[gnu::visibility("default")]] int semop(int id, sembuf* steps,
                                                    std::size_t count) noexcept {
  const int rc = static_cast<int>(syscall(SYS_semtimedop, id, steps, count, nullptr));
  stop_here();
  return rc;
}

namespace varn::test {
namespace {

// Steps between one death and the next; instrumented code takes many more.
constexpr std::size_t kStride = kIsAddressSanitized ? 997 : 37;
constexpr int kPlanted = 400;

std::uint32_t chain_of(int pid, int tid) {
  char key[23];
  put_digits(key, 8, pid);
  put_digits(key + 8, 15, tid);
  return get_hidx(key, sizeof key, kTableChains - 1);
}

// ---- Deaths ----

struct Making {
  const char* what;
  bool in_used_chain;  // the entry is linked behind another's
};

// The first entry of a process, or one whose chain has others.
void make_entry(FakeCollector& collector, const Making& making) {
  int tid = 0;
  if (making.in_used_chain) {
    while (collector.ptrc_tbl().heads[chain_of(getpid(), ++tid)] == kNoEntry) {
    }
  }
  stop_at = making.in_used_chain ? 2 : 1;
  TRAN_INIT();
  info(tid);
}

void plant_entries(FakeCollector& collector) {
  for (int n = 1; n <= kPlanted; ++n) {
    PTRC_HASH_ENT* entry = nullptr;
    get_ptrc_hash(collector.ptrc_tbl(), {1, static_cast<std::uint64_t>(n), 0, 0, "p", "", "u", "s"},
                  &entry);
  }
}

// A traced child that stands still right before it takes the semaphore.
pid_t start_making(FakeCollector& collector, const Making& making) {
  const pid_t pid = fork();
  if (pid == 0) {
    for (const auto& [name, value] : collector.environment) setenv(name.c_str(), value.c_str(), 1);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    make_entry(collector, making);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFSTOPPED(status) && WSTOPSIG(status) == SIGSTOP) << status;
  return pid;
}

// A place in a process's run: an instruction, when it comes to it for the so-manieth time.
struct Step {
  std::uint64_t instruction;
  int times;
};

// Lets it go on until its next stop: whether that is the one asked for, not its own at the end.
bool resume(pid_t pid, __ptrace_request how) {
  int status = 0;
  ptrace(how, pid, nullptr, nullptr);
  waitpid(pid, &status, 0);
  return WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP;
}

user_regs_struct registers_of(pid_t pid) {
  user_regs_struct registers = {};
  ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
  return registers;
}

// All steps until the semaphore is given back.
std::vector<Step> steps_of(pid_t pid) {
  std::vector<Step> steps;
  std::map<std::uint64_t, int> times;
  while (resume(pid, PTRACE_SINGLESTEP)) {
    const std::uint64_t instruction = registers_of(pid).rip;
    steps.push_back({instruction, ++times[instruction]});
  }
  return steps;
}

// Stepping there again would take a thousand times as long as a breakpoint. The process may come
// there less often than the first did, and is at its end then.
void run_to(pid_t pid, const Step& step) {
  constexpr std::uint64_t kBreakpoint = 0xCC;
  const auto at = reinterpret_cast<void*>(step.instruction);
  const auto code = static_cast<std::uint64_t>(ptrace(PTRACE_PEEKTEXT, pid, at, nullptr));
  for (int times = 0; times < step.times; ++times) {
    if (times > 0) resume(pid, PTRACE_SINGLESTEP);
    ptrace(PTRACE_POKETEXT, pid, at, (code & ~std::uint64_t{0xFF}) | kBreakpoint);
    const bool there = resume(pid, PTRACE_CONT);
    ptrace(PTRACE_POKETEXT, pid, at, code);
    if (!there) return;
    user_regs_struct registers = registers_of(pid);
    registers.rip = step.instruction;
    ptrace(PTRACE_SETREGS, pid, nullptr, &registers);
  }
}

void kill_child(pid_t pid) {
  kill(pid, SIGKILL);
  for (int status = 0; waitpid(pid, &status, 0) == pid && !WIFSIGNALED(status);) {
  }
}

testing::AssertionResult can_be_used(FakeCollector& collector) {
  if (const int value = semctl(collector.ptrc_semid(), 0, GETVAL); value != 1)
    return testing::AssertionFailure() << "the semaphore is " << value;
  return collector.run([&] {
    EXPECT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(info(5)));
    EXPECT_NE(collector.entry_of(getpid(), 5), nullptr);
    std::_Exit(testing::Test::HasFailure() ? 1 : 0);
  });
}

std::unique_ptr<FakeCollector> new_collector() {
  auto collector = std::make_unique<FakeCollector>();
  plant_entries(*collector);
  return collector;
}

void die_at_every_step(const Making& making, std::size_t stride) {
  constexpr std::uint32_t kDeathsOfTable = 500;  // then a fresh one
  auto collector = new_collector();
  const pid_t first = start_making(*collector, making);
  const std::vector<Step> steps = steps_of(first);
  kill_child(first);
  ASSERT_GT(steps.size(), 1000U) << "no entry is made in so few";
  std::uint32_t deaths = 1;
  for (std::size_t at = 0; at < steps.size() && !testing::Test::HasFailure(); at += stride) {
    if (deaths++ == kDeathsOfTable) {
      collector = new_collector();
      deaths = 1;
    }
    const pid_t pid = start_making(*collector, making);
    run_to(pid, steps[at]);
    kill_child(pid);
    EXPECT_TRUE(is_sound(collector->ptrc_tbl(), deaths)) << "after step " << at;
    EXPECT_TRUE(can_be_used(*collector)) << "after step " << at;
    collector->read_all();
  }
  testing::Test::RecordProperty(making.what, std::to_string(steps.size()));
}

TEST(Peers, AProcessKilledAtAnyStepOfMakingAnEntryLeavesASoundTable) {
  if (kIsThreadSanitized)
    GTEST_SKIP() << "a step is thousands of the sanitizer's own, which sees no other process";
  constexpr Making kMakings[] = {{"first_of_chain", false}, {"behind_another", true}};
  for (const Making& making : kMakings) {
    SCOPED_TRACE(making.what);
    die_at_every_step(making, is_long_run() ? 1 : kStride);
  }
}

// ---- Entries shared by mistake ----

void expect_codes(int tid, int rounds_of_calls) {
  for (int n = 0; n < rounds_of_calls; ++n)
    for (const ExportedCall& call : kExportedCalls) {
      if (call.name == "TRAN_DONE" || call.name == "TRAN_SET_SVCTIMEOUT") continue;
      const int result = make(call, tid);
      EXPECT_TRUE(is_documented(call.name, result)) << call.name << " returned " << result;
    }
}

// Runs in a process whose pid is 1, as that of another container's may be. The search for leaks at
// the end of a process does not know such ones.
void run_as_pid_1(const std::function<void()>& body) {
  const auto quit = [] { std::_Exit(testing::Test::HasFailure() ? 1 : 0); };
  ASSERT_EQ(unshare(CLONE_NEWPID), 0);
  ChildProcess first([&] {
    EXPECT_EQ(getpid(), 1);
    body();
    quit();
  });
  EXPECT_TRUE(first.wait(is_long_run() ? 3600s : 60s));
  quit();
}

TEST(Peers, TwoProcessesOfOnePidShareTheirEntriesAndLive) {
  FakeCollector collector;
  Shared<std::atomic<int>> started;
  std::vector<std::unique_ptr<ChildProcess>> processes;
  for (int n = 0; n < 2; ++n)
    processes.push_back(collector.start([&] {
      run_as_pid_1([&] {
        ASSERT_EQ(TRAN_INIT(), 0);
        ++*started;
        ASSERT_TRUE(wait_until([&] { return *started == 2; }));
        expect_codes(7, rounds(1000, 100));
      });
    }));
  for (const auto& process : processes) EXPECT_TRUE(process->wait(is_long_run() ? 3600s : 90s));
  EXPECT_EQ(collector.ptrc_tbl().used_stack.count, 3U) << "thread 0's, 7's and that of the hooks";
}

}  // namespace
}  // namespace varn::test
