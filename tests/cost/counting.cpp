#include "cost/counting.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>

#include "varn/tran.h"

namespace {

thread_local int allocated;
thread_local int freed;

}  // namespace

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's names
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
// NOLINTEND(bugprone-reserved-identifier)

VARN_API void* malloc(std::size_t size) {
  ++allocated;
  return __libc_malloc(size);
}
VARN_API void* calloc(std::size_t count, std::size_t size) {
  ++allocated;
  return __libc_calloc(count, size);
}
VARN_API void* realloc(void* block, std::size_t size) {
  ++allocated;
  return __libc_realloc(block, size);
}
VARN_API void free(void* block) {
  freed += block != nullptr;
  __libc_free(block);
}

}  // extern "C"

namespace varn::test {
namespace {

using SystemCalls = std::vector<long>;

// A system call that no kernel has: one behind each case, and a last one.
constexpr long kMark = 0xC057;

void mark() { syscall(kMark); }

void run_counted(const CountedCase& counted) {
  SCOPED_TRACE(counted.name);
  mark();
  allocated = freed = 0;
  counted.run();
  const int allocated_by_case = allocated;
  const int freed_by_case = freed;
  mark();
  EXPECT_EQ(allocated_by_case, counted.allocations);
  EXPECT_EQ(freed_by_case, 0);
}

// What the traced thread calls between its marks; it is let go behind the last of them.
std::vector<SystemCalls> system_calls(pid_t pid, std::size_t marks) {
  std::vector<SystemCalls> between(marks + 1);
  int status = 0;
  std::size_t seen = 0;
  int signal = 0;
  while (seen < marks && waitpid(pid, &status, 0) == pid && WIFSTOPPED(status)) {
    const bool is_system_call = WSTOPSIG(status) == (SIGTRAP | 0x80);
    if (is_system_call) {
      __ptrace_syscall_info info = {};
      ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
      const bool begins = info.op == PTRACE_SYSCALL_INFO_ENTRY;
      const long number = begins ? static_cast<long>(info.entry.nr) : 0;
      if (number == kMark)
        ++seen;
      else if (begins)
        between[seen].push_back(number);
    } else if (WSTOPSIG(status) == SIGSTOP) {  // how it begins
      ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    } else {
      signal = WSTOPSIG(status);
    }
    if (seen < marks) ptrace(PTRACE_SYSCALL, pid, nullptr, signal);
    signal = 0;
  }
  EXPECT_EQ(seen, marks) << "the process ended before its last case";
  ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
  return between;
}

}  // namespace

void expect_costs(FakeCollector& collector, const std::function<void()>& prepare,
                  const std::vector<CountedCase>& cases) {
  const auto child = collector.start([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    prepare();
    for (const CountedCase& counted : cases) counted.run();
    ASSERT_EQ(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr), 0);
    raise(SIGSTOP);
    for (const CountedCase& counted : cases) run_counted(counted);
  });
  const std::vector<SystemCalls> between = system_calls(child->pid(), 2 * cases.size());
  EXPECT_TRUE(child->wait());
  for (std::size_t n = 0; n < cases.size(); ++n) {
    const auto records = static_cast<std::size_t>(cases[n].records);
    EXPECT_EQ(between[2 * n + 1], SystemCalls(records, SYS_msgsnd)) << cases[n].name;
  }
}

}  // namespace varn::test
