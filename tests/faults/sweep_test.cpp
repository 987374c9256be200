// Each call that the library makes of another function fails once, at every place where a process's
// life makes it: the process goes on, nothing is left behind, and a start afterwards works fully.
//
// VARN_SOAK=1 in the environment: with seven error numbers each, and in a second life as well.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "collector/entries.h"
#include "faults/imports.h"
#include "process/calls.h"

namespace varn::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostImports = 64;
constexpr std::size_t kNoImport = kMostImports;
constexpr int kWorkers = 6;
constexpr unsigned kMostSeconds = 20;  // of one life; more is a hang
constexpr int kSoakErrors[] = {EINTR, EAGAIN, ENOMEM, EINVAL, EIO, EACCES, ENOSPC};

bool is_soak() { return std::getenv("VARN_SOAK") != nullptr; }
int lives() { return is_soak() ? 2 : 1; }

// Seen by the process that lives, its child and the one that looks on.
struct Fault {
  std::size_t import = kNoImport;
  int number = 0;  // of its call that fails
  int error = 0;
  std::atomic<int> calls[kMostImports];
  char complaint[256];  // what went wrong; empty: nothing
};
Fault* fault;

int fail_once(std::size_t import) {
  const int number = ++fault->calls[import];
  return import == fault->import && number == fault->number ? std::max(fault->error, 1) : 0;
}

template <typename... Parts>
bool complain(const char* format, Parts... parts) {
  if (fault->complaint[0] == '\0')
    std::snprintf(fault->complaint, sizeof fault->complaint, format, parts...);
  return false;
}

// What a process has of the system's.
struct Resources {
  long descriptors = 0, threads = 0, attachments = 0, blocks = 0;
  bool operator==(const Resources&) const = default;
};

long files_in(const char* directory) {
  return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
}

Resources resources() {
  Resources now = {files_in("/proc/self/fd"), files_in("/proc/self/task"), 0, allocations_left()};
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);)
    now.attachments += line.find("/SYSV") != line.npos ? 1 : 0;
  if (!kMayFork) now.threads = 0;  // one of them is the sanitizer's, which comes late
  return now;
}

void make_all(int tid) {
  for (const ExportedCall& call : kExportedCalls) {
    constexpr int kHosts = 4242;
    errno = kHosts;
    make(call, tid);
    if (errno != kHosts) complain("errno is %d after %s", errno, call.name.data());
  }
}

bool ends_well(pid_t child) {
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status == 0 || complain("the forked child ended with 0x%x", static_cast<unsigned>(status));
}

// Every call in a life of its own, and in that of a child; before that, a life in narrow straits.
void live() {
  TRAN_INIT();
  for (const int tid : {-1, 7, 7 + 256}) event(tid);  // in a bucket with another
  setenv("TZ", "UTC+12", 1);                          // another day: the files change
  tzset();
  const pid_t child = kMayFork ? fork_when_others_sleep() : -1;
  if (child == 0) {
    alarm(kMostSeconds);
    make_all(-1);
    _exit(0);
  }
  if (child > 0) ends_well(child);
  // Telegrams and log lines that are cut off or refused.
  const rlimit small = {.rlim_cur = 300, .rlim_max = RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &small);
  for (const ExportedCall& call : kExportedCalls)
    if (call.texts.data() == std::data(kTelegramTexts)) make(call, -1);
  TRAN_DONE();
  const rlimit none = {.rlim_cur = RLIM_INFINITY, .rlim_max = RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &none);
  make_all(-1);
}

constexpr char kAfterwards[] = "after the fault";

// Whatever failed before: nothing is left behind, and a life is as good as the first.
bool works_afterwards(const Resources& before) {
  const auto left_nothing = [&](const char* when, bool with_blocks) {
    Resources now;
    const auto is_as_before = [&] {
      now = resources();
      if (!with_blocks) now.blocks = before.blocks;
      return now == before;
    };
    return wait_until(is_as_before, 1s) ||
           complain("left %s: %ld descriptors, %ld threads, %ld attachments, %ld blocks", when,
                    now.descriptors - before.descriptors, now.threads - before.threads,
                    now.attachments - before.attachments, now.blocks - before.blocks);
  };
  if (const int rc = TRAN_DONE(); rc != 0) return complain("TRAN_DONE returned %d", rc);
  // Telegrams of a disk that was slow stay until the next start.
  if (!left_nothing("after the fault", false)) return false;
  // A semaphore that failed is left alone for a while.
  int started = -1;
  if (!wait_until([&] { return (started = TRAN_INIT()) == 0; }, 5s))
    return complain("TRAN_INIT returns %d", started);
  for (const int rc : {start(-1), info(-1, kService, kAfterwards), end(-1), TRAN_DONE()})
    if (!is_sent(rc)) return complain("a call returned %d after the fault", rc);
  return left_nothing("at the end", true);
}

// In a child of its own.
void run_life() {
  alarm(kMostSeconds);
  const int null = open("/dev/null", O_RDWR);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, fd);
  close(null);
  const Resources before = resources();
  set_on_import(fail_once);
  for (int life = 0; life < lives(); ++life) live();
  set_on_import(nullptr);
  _exit(works_afterwards(before) && fault->complaint[0] == '\0' ? 0 : 1);
}

struct Case {
  std::size_t import;
  int number;
  int error;
};

class FaultyHost {
 public:
  FaultyHost() {
    collector_.environment["VARN_CONSOLE"] = "on";
    collector_.environment["TZ"] = "UTC-14";
    collector_.que_info().tong_log_flag = '1';
  }

  // One life; what went wrong is a failed check.
  void live_with(const Case& c) {
    fault = &*fault_;
    fault->import = c.import;
    fault->number = c.number;
    fault->error = c.error;
    for (auto& calls : fault->calls) calls = 0;
    fault->complaint[0] = '\0';
    const pid_t child = fork();
    if (child == 0) {
      for (const auto& [name, value] : collector_.environment)
        setenv(name.c_str(), value.c_str(), 1);
      run_life();
    }
    int status = 0;
    waitpid(child, &status, 0);
    const auto records = collector_.read_all('I');
    const bool arrived = std::ranges::any_of(
        records, [](const Record& r) { return body_field(r, "message") == kAfterwards; });
    EXPECT_TRUE(status == 0 && arrived)
        << "status 0x" << std::hex << status << std::dec << ", " << fault->complaint
        << (arrived ? "" : ", nothing arrived") << " (call " << c.number << " of "
        << (c.import == kNoImport ? "none" : imports()[c.import].name) << " failed with " << c.error
        << ")";
    collector_.que_info().magic_code = kMagicReady;
    take_entries_back(collector_.ptrc_tbl(), collector_.ptrc_semid());
  }
  int calls_of(std::size_t import) const { return fault_->calls[import]; }

 private:
  FakeCollector collector_{{.queues = 1}};
  Shared<Fault> fault_;
};

std::vector<Case> cases_of(const FaultyHost& host) {
  std::vector<Case> cases;
  const char* const only = std::getenv("VARN_FAULT_ONLY");  // one function, to look into it
  for (std::size_t n = 0; n < imports().size(); ++n) {
    const Import& import = imports()[n];
    if (import.kind == Kind::kFrees || import.kind == Kind::kCertain ||
        (only != nullptr && import.name != only))
      continue;
    for (int number = 1; number <= host.calls_of(n); ++number) {
      cases.push_back({n, number, import.error});
      if (!is_soak() || import.only_this || import.kind == Kind::kQuiet) continue;
      for (const int error : kSoakErrors)
        if (error != import.error) cases.push_back({n, number, error});
    }
  }
  return cases;
}

// In the library with the collector's half of small functions that both use, and never called.
bool is_collectors(std::string_view name) {
  return name == "msgctl" || name == "msgrcv" || name == "semctl";
}

TEST(Faults, TheListsKnowEveryImportOfTheLibrary) {
  if (kIsSanitized) GTEST_SKIP() << "instrumented, it imports what the C++ runtime needs";
  const auto unknown = redirect_imports();
  EXPECT_TRUE(unknown.empty()) << testing::PrintToString(unknown);
}

TEST(Faults, NoFailingFunctionHarmsTheHostOrLastsOver) {
  ASSERT_LE(imports().size(), kMostImports);
  redirect_imports();
  std::vector<FaultyHost> hosts(kWorkers);
  hosts[0].live_with({kNoImport, 0, 0});
  ASSERT_FALSE(HasFailure()) << "without any fault";
  const std::vector<Case> cases = cases_of(hosts[0]);
  for (std::size_t n = 0; kMayFork && n < imports().size(); ++n)
    EXPECT_EQ(hosts[0].calls_of(n) > 0, is_imported(n) && !is_collectors(imports()[n].name))
        << imports()[n].name;
  RecordProperty("cases", static_cast<int>(cases.size()));
  Shared<std::atomic<int>> next;
  std::vector<std::unique_ptr<ChildProcess>> workers;
  for (FaultyHost& host : hosts)
    workers.push_back(std::make_unique<ChildProcess>([&] {
      for (std::size_t at = 0;
           at = static_cast<std::size_t>(next->fetch_add(kOneInAlone)), at < cases.size();)
        host.live_with(cases[at]);
    }));
  for (auto& worker : workers) EXPECT_TRUE(worker->wait(is_soak() ? 3600s : 600s));
}

}  // namespace
}  // namespace varn::test
