// The promises that only many of everything can break: each record arrives or is counted, nothing
// grows, and no call takes long. VARN_SOAK=1 asks for the long run of scripts/soak.
#include <malloc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "collector/entries.h"
#include "layout/gvar.h"
#include "process/calls.h"
#include "records/calls.h"

namespace varn::test {
namespace {

namespace fs = std::filesystem;

std::string gid_of(int n) {
  const std::string digits = std::to_string(n);
  return "20240102030405GID" + std::string(15 - digits.size(), '0') + digits;
}

template <typename Body>
void on_threads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int n = 0; n < count; ++n) threads.emplace_back(body, n);
  for (std::thread& thread : threads) thread.join();
}

// ---- Every record ----

constexpr int kProcesses = 4;
constexpr int kThreads = 4;
constexpr int kInfosOfService = 98;
constexpr int kRecordsOfService = kInfosOfService + 2;

struct Counts {
  std::atomic<std::int64_t> sent, failed, other;
  std::atomic<int> started;
  std::atomic<bool> may_send;

  void add(int result) {
    if (is_sent(result))
      ++sent;
    else if (result == TRAN_RC_NOT_SENT)
      ++failed, usleep(20);  // leaves the reader some room
    else
      ++other;
  }
};

// Numbered information, so that a record which comes twice, or is made of two, is found.
void send_services(int first, int count, Counts& counts) {
  for (int service = first; service < first + count; ++service) {
    const std::string gid = gid_of(service);
    counts.add(start({.gid = gid.c_str(), .svc_id = kService}, -1));
    for (int n = 0; n < kInfosOfService; ++n) {
      char message[32];
      std::snprintf(message, sizeof message, "%d/%d", service, n);
      counts.add(info({.svc_id = kService, .message = message}, -1));
    }
    counts.add(end({.gid = gid.c_str(), .svc_id = kService}, -1));
  }
}

// A reader that now and then lets the queues fill.
class SlowReader {
 public:
  explicit SlowReader(FakeCollector& collector, int services)
      : collector_(collector), seen_(std::size_t(services) * kInfosOfService) {}

  std::int64_t received() const { return received_; }

  void read_until(const std::function<bool()>& done) {
    for (bool last = false; !last;) {
      last = done();
      for (const Record& record : collector_.read_all()) check(record);
      if (!last && ++rounds_ % 8 == 0) std::this_thread::sleep_for(30ms);
    }
  }

 private:
  void check(const Record& record) {
    ++received_;
    if (type_of(record) != 'I') return;
    int service = -1, n = -1;
    const std::string message = body_field(record, "message");
    ASSERT_EQ(std::sscanf(message.c_str(), "%d/%d", &service, &n), 2) << message;
    EXPECT_EQ(text_of(record, kGid), gid_of(service));
    const std::size_t at = std::size_t(service) * kInfosOfService + std::size_t(n);
    ASSERT_LT(at, seen_.size());
    EXPECT_FALSE(seen_[at]) << message << " came twice";
    seen_[at] = true;
  }

  FakeCollector& collector_;
  std::vector<bool> seen_;
  std::int64_t received_ = 0;
  int rounds_ = 0;
};

TEST(Soak, EachRecordIsReceivedOrCountedAsFailed) {
  const int services_of_thread = rounds(625, 100);
  FakeCollector collector;
  Shared<Counts> counts;
  std::vector<std::unique_ptr<ChildProcess>> processes;
  for (int p = 0; p < kProcesses; ++p)
    processes.push_back(collector.start([&, p] {
      ASSERT_EQ(TRAN_INIT(), 0);
      ++counts->started;
      ASSERT_TRUE(wait_until([&] { return counts->may_send.load(); }));
      on_threads(kThreads, [&](int t) {
        send_services((p * kThreads + t) * services_of_thread, services_of_thread, *counts);
      });
      EXPECT_EQ(TRAN_DONE(), 0);
    }));
  ASSERT_TRUE(wait_until([&] { return counts->started == kProcesses; }));
  EXPECT_EQ(collector.read_all().size(), kProcesses) << "the notices of their start";
  counts->may_send = true;
  const std::int64_t services = std::int64_t{kProcesses} * kThreads * services_of_thread;
  const std::int64_t tried = services * kRecordsOfService;
  SlowReader reader(collector, static_cast<int>(services));
  const auto begun = std::chrono::steady_clock::now();
  const auto over = [&] { return std::chrono::steady_clock::now() - begun > kDeadline; };
  reader.read_until([&] {
    return counts->sent + counts->failed + counts->other == tried || (!is_long_run() && over());
  });
  for (const auto& process : processes) EXPECT_TRUE(process->wait());
  std::int64_t failures = 0;
  for (const std::uint32_t count : collector.que_info().que_fail_cnt) failures += count;
  EXPECT_EQ(counts->other, 0);
  EXPECT_EQ(counts->sent + counts->failed, tried);
  EXPECT_EQ(reader.received(), counts->sent);
  EXPECT_EQ(failures, counts->failed);
  EXPECT_GT(failures, 0) << "no queue was ever full";
  RecordProperty("failed", std::to_string(failures));
}

// ---- Nothing grows ----

struct Footprint {
  std::size_t descriptors = count("/proc/self/fd");
  std::size_t threads = count("/proc/self/task");
  std::size_t mappings;
  unsigned long attachments;  // of all processes
  std::size_t entries;        // of this process, in the table of threads
  std::size_t heap;

  explicit Footprint(FakeCollector& collector) {
    mappings = count_mappings();
    shmid_ds segment = {};
    shmctl(collector.object(kPtrcHashTblShmKey).id(), IPC_STAT, &segment);
    attachments = segment.shm_nattch;
    entries = collector.entries_of(getpid()).size();
    heap = mallinfo2().uordblks;
  }
  // The heap but for what an ended thread's cache may hold, the entries but for those of a bucket's
  // ended threads, whose places nobody has wanted yet.
  friend bool operator<=(const Footprint& now, const Footprint& before) {
    return now.descriptors <= before.descriptors && now.threads <= before.threads &&
           now.mappings <= before.mappings && now.attachments <= before.attachments &&
           now.entries <= before.entries + kBucketContexts && now.heap < before.heap + 16'384;
  }

  // Of files and segments: stacks and heaps are mapped as the C library likes.
  static std::size_t count_mappings() {
    std::istringstream maps(read_file("/proc/self/maps"));
    std::size_t mappings = 0;
    for (std::string line; std::getline(maps, line);) mappings += line.find('/') != line.npos;
    return mappings;
  }
  static std::size_t count(const char* directory) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
  }
  friend void PrintTo(const Footprint& print, std::ostream* out) {
    *out << "heap " << print.heap << ", descriptors " << print.descriptors << ", threads "
         << print.threads << ", mappings " << print.mappings << ", attachments "
         << print.attachments << ", entries " << print.entries;
  }
};

// A tenth of the rounds to warm up, then all of them: nothing is left of those.
void expect_no_growth(int usual_rounds, bool started, const std::function<void()>& round) {
  const int many = rounds(usual_rounds, 10);
  FakeCollector collector;
  collector.environment["VARN_CONSOLE"] = "off";
  collector.que_info().tong_log_flag = '1';
  EXPECT_TRUE(collector.run(
      [&] {
        ASSERT_TRUE(!started || TRAN_INIT() == 0);
        const auto repeat = [&](int times) {
          for (int n = 0; n < times; ++n) {
            round();
            if (n % 1000 == 0) take_entries_back(collector.ptrc_tbl(), collector.ptrc_semid());
          }
        };
        repeat(many / 10);
        Footprint{collector};  // what looking itself takes is there from now on
        const Footprint before(collector);
        repeat(many);
        EXPECT_LE(Footprint(collector), before);
      },
      kDeadlineOfRounds));
}

void trace_one_service() {
  start(-1);
  info(-1);
  end(-1);
}

TEST(Soak, StartsAndStopsLeaveNothingBehind) {
  expect_no_growth(1000, false, [] {
    ASSERT_EQ(TRAN_INIT(), 0);
    trace_one_service();
    ASSERT_EQ(TRAN_DONE(), 0);
  });
}

TEST(Soak, ThreadsThatEndLeaveNothingBehind) {
  expect_no_growth(10'000, true, [] { on_threads(10, [](int) { trace_one_service(); }); });
}

TEST(Soak, ForkedChildrenLeaveNothingBehind) {
  expect_no_growth(1000, true, [] {
    const pid_t pid = fork_when_others_sleep();
    if (pid == 0) {
      if (info(-1) != TRAN_RC_NOT_STARTED || TRAN_INIT() != 0) _exit(1);
      trace_one_service();
      _exit(TRAN_DONE() == 0 ? 0 : 2);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    ASSERT_EQ(status, 0);
  });
}

// ---- No call takes long ----

constexpr Duration kLongest = 100ms;

// The longest call of a service, in the calling thread's context.
Duration longest_call() {
  Duration longest{};
  const auto time = [&](auto call) {
    const auto begun = std::chrono::steady_clock::now();
    call();
    longest = std::max(longest, std::chrono::steady_clock::now() - begun);
  };
  for (int n = 0; n < 1000; ++n) {
    time([] { start(-1); });
    time([] { info(-1); });
    time([] { call_start({.func_nm = "check_limit"}, -1); });
    time([] { call_end({.func_nm = "check_limit"}, -1); });
    time([] { event(-1); });
    time([] { error(-1); });
    time([] { end(-1); });
  }
  return longest;
}

// Least of three times, since a thread may be kept from its processor; in a new thread, which has
// to find its context.
void expect_short_calls() {
  Duration least = Duration::max();
  for (int n = 0; n < 3; ++n) on_threads(1, [&](int) { least = std::min(least, longest_call()); });
  EXPECT_LT(least, kLongest);
}

void expect_short_calls_when(const std::function<void(FakeCollector&)>& it_happens) {
  FakeCollector collector;
  collector.environment["VARN_CONSOLE"] = "off";
  Shared<std::atomic<bool>> happened;
  Shared<std::atomic<bool>> started;
  const auto process = collector.start([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    started->store(true);
    ASSERT_TRUE(wait_until([&] { return happened->load(); }));
    expect_short_calls();
  });
  ASSERT_TRUE(wait_until([&] { return started->load(); }));
  it_happens(collector);
  happened->store(true);
  EXPECT_TRUE(process->wait());
}

TEST(Soak, NoCallTakesLongWhenQueuesAreFull) {
  expect_short_calls_when([](FakeCollector& collector) {
    const Record record = {.mtype = kRecordMsgType, .length = kBodyAt, .view = {}};
    for (int queue = 0; queue < 4; ++queue)
      while (msgsnd(collector.object(kTranLogfMsgqKey, queue).id(), &record, kRecordTextSize,
                    IPC_NOWAIT) == 0) {
      }
  });
}

TEST(Soak, NoCallTakesLongWhenTheCollectorIsGone) {
  expect_short_calls_when([](FakeCollector& collector) {
    for (int queue = 0; queue < 4; ++queue) collector.remove_object(kTranLogfMsgqKey, queue);
    for (const ConfigKey& key : {kQueInfoShmKey, kSvcHashTblShmKey, kPtrcHashTblShmKey,
                                 kSvcHashTblSemKey, kPtrcHashTblSemKey})
      collector.remove_object(key);
  });
}

// But for the first of them, which waits its two seconds.
TEST(Soak, NoCallTakesLongWhenTheTablesSemaphoreIsNeverGivenBack) {
  expect_short_calls_when(
      [](FakeCollector& collector) { semctl(collector.ptrc_semid(), 0, SETVAL, 0); });
}

}  // namespace
}  // namespace varn::test
