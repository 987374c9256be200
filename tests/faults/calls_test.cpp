// Every exported call: in every state of the agent, at the edge of memory, inside every other call,
// with a cancellation pending, on small stacks, and from an allocator that it calls itself.
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <set>

#include "faults/imports.h"
#include "process/calls.h"

namespace varn::test {
namespace fs = std::filesystem;
namespace {

[[maybe_unused]] const auto redirected = redirect_imports();

bool is(const ExportedCall& call, std::string_view name) { return call.name == name; }
bool starts_or_stops(const ExportedCall& call) {
  return is(call, "TRAN_INIT") || is(call, "TRAN_DONE");
}
bool ends_tracing(const ExportedCall& call) {
  return starts_or_stops(call) || is(call, "TRAN_SET_SVCTIMEOUT");
}

void make_all(int tid) {
  for (const ExportedCall& call : kExportedCalls)
    if (!ends_tracing(call)) make(call, tid);
}

class Calls : public testing::Test {
 protected:
  // A traced process, started but for the tests that start it themselves.
  void in_host(const std::function<void()>& body, Duration within = 60s) {
    EXPECT_TRUE(collector_.run(
        [&] {
          ASSERT_EQ(TRAN_INIT(), 0);
          body();
        },
        within));
  }

  // Reads what was sent, and checks that each record is whole.
  std::size_t read_whole_records() {
    const auto records = collector_.read_all();
    for (const Record& record : records) {
      EXPECT_NE(record_kind(type_of(record), record.length), nullptr) << type_of(record);
      const std::string_view view(record.view, record.length);
      EXPECT_TRUE(std::ranges::none_of(view, [](unsigned char c) { return c < ' '; })) << view;
    }
    return records.size();
  }

  // Nothing is locked, and the next life is as good as the first.
  void expect_works() {
    make_all(-1);
    EXPECT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(TRAN_INIT(), 0);
    collector_.read_all();
    EXPECT_EQ(start(-1), 0);
    EXPECT_EQ(end(-1), 0);
    EXPECT_EQ(read_whole_records(), 2U);
  }

  FakeCollector collector_{{.queues = 1}};
};

TEST_F(Calls, AreAllInTheTable) {
  std::set<std::string_view> listed;
  for (const ExportedCall& call : kExportedCalls) listed.insert(call.name);
  const auto names = exported_names();
  EXPECT_EQ(listed, std::set(names.begin(), names.end()));
}

// ---- errno ----

TEST_F(Calls, LeaveErrnoAsItWasInEveryState) {
  const auto fail_allocations = [] {
    set_on_import([](std::size_t n) { return imports()[n].kind == Kind::kAllocates ? ENOMEM : 0; });
  };
  const auto go_on_in_child = [] {
    const pid_t child = fork_when_others_sleep();
    int status = -1;
    if (child > 0) waitpid(child, &status, 0);
    if (child != 0) std::_Exit(status == 0 ? 0 : 1);
  };
  const std::pair<const char*, std::function<void(FakeCollector&)>> states[] = {
      {"without an environment", [](FakeCollector&) { unsetenv("TRAN_HOME"), TRAN_INIT(); }},
      {"not started", [](FakeCollector&) {}},
      {"started", [](FakeCollector&) {}},
      {"stopped", [](FakeCollector&) { TRAN_DONE(); }},
      {"off", [](FakeCollector& c) { c.que_info().magic_code = 0; }},
      {"with a full queue",
       [](FakeCollector&) {
         while (event(-1) != 105)
           ;
       }},
      {"without a queue", [](FakeCollector& c) { c.remove_object(kTranLogfMsgqKey); }},
      {"without a semaphore", [](FakeCollector& c) { c.remove_object(kPtrcHashTblSemKey); }},
      {"without settings", [](FakeCollector& c) { fs::remove(c.home() / "agent.cfg"); }},
      {"without memory", [&](FakeCollector&) { fail_allocations(); }},
      {"in a forked child", [&](FakeCollector&) { go_on_in_child(); }},
  };
  for (const auto& [name, enter] : states) {
    const std::string_view state = name;
    if (!kMayFork && state == "in a forked child") continue;
    SCOPED_TRACE(name);
    FakeCollector collector({.queues = 1});
    EXPECT_TRUE(collector.run([&, enter = enter] {
      collector.que_info().tong_log_flag = '1';
      if (state != "not started" && state != "without an environment") TRAN_INIT();
      enter(collector);
      for (const int tid : {-1, 77}) {
        for (const ExportedCall& call : kExportedCalls) {
          errno = 4242;
          make(call, tid);
          const int after = errno;
          EXPECT_EQ(after, 4242) << call.name;
        }
      }
      std::_Exit(HasFailure() ? 1 : 0);
    }));
  }
}

// ---- Texts at the edge of memory ----

// So many bytes, behind which there is no memory.
const char* edge(int bytes) {
  static std::map<int, const char*> made;
  const char*& text = made[bytes];
  if (text == nullptr) text = guarded(std::string(static_cast<std::size_t>(bytes), 'A'));
  return text;
}

TEST_F(Calls, ReadNoTextBeyondItsWidthLengthOrEnd) {
  constexpr int kWidth = 0;  // the field's, in the table below
  struct Form {
    int bytes;  // that there are; -1: a null pointer
    int len;
  };
  constexpr Form kForms[] = {{kWidth, -1},        {kWidth, kWidth}, {kWidth, INT32_MAX},
                             {kWidth, INT32_MIN}, {1, 1},           {-1, -1},
                             {-1, INT32_MAX},     {-1, 0}};
  in_host([&] {
    for (const Form& form : kForms) {
      for (std::size_t changed = 0; changed <= kMostTexts; ++changed) {  // the last time: all
        for (const ExportedCall& call : kExportedCalls) {
          if (ends_tracing(call)) continue;
          std::array<Arg, kMostTexts> texts;
          for (std::size_t i = 0; i < call.texts.size(); ++i) {
            const TextArgument& text = call.texts[i];
            const bool is_changed = i == changed || changed == kMostTexts;
            texts[i] = plausible(text);
            if (!is_changed || (form.bytes == 1 && !text.has_len)) continue;
            texts[i] = {form.bytes < 0 ? nullptr : edge(form.bytes == kWidth ? text.width : 1),
                        form.len == kWidth && form.bytes >= 0 ? text.width : form.len};
          }
          call.make(77, texts.data());
        }
        read_whole_records();
      }
    }
    expect_works();
  });
}

// ---- Inside each other ----

// What the thread under test calls of others, and what happens there.
struct Interruption {
  std::vector<std::size_t> passed;  // imports called
  std::size_t at;                   // the place of the one that is interrupted
  void (*happens)();
} interruption;
thread_local bool is_watched;  // the thread under test, but for its interruption

thread_local bool is_nested;  // in a call that is to be refused
int interrupt(std::size_t import) {
  if (is_nested && imports()[import].kind == Kind::kAllocates)
    ADD_FAILURE() << "allocates, and is refused";
  if (!is_watched) return 0;
  is_watched = false;
  interruption.passed.push_back(import);
  if (interruption.passed.size() == interruption.at) interruption.happens();
  is_watched = true;
  return 0;
}

constexpr std::size_t kNowhere = SIZE_MAX;

// Makes the call, interrupted at a place.
int make_interrupted(const ExportedCall& call, int tid, std::size_t at) {
  interruption.passed.clear();
  interruption.at = at;
  set_on_import(interrupt);
  is_watched = true;
  const int result = make(call, tid);
  is_watched = false;
  set_on_import(nullptr);
  return result;
}

// Where a call is interrupted: at each import that it calls, of many calls of one the first two and
// the last.
std::vector<std::size_t> places_in(const std::vector<std::size_t>& passed) {
  std::map<std::size_t, std::vector<std::size_t>> by_import;
  for (std::size_t n = 0; n < passed.size(); ++n) by_import[passed[n]].push_back(n + 1);
  std::set<std::size_t> places;
  for (const auto& [import, at] : by_import) {
    places.insert({at.front(), at[std::min<std::size_t>(1, at.size() - 1)], at.back()});
    if (passed.size() < 60) places.insert(at.begin(), at.end());
  }
  return {places.begin(), places.end()};
}

// The state that a call finds: a thread that the agent does not know, or one in a database call of
// a service.
int next_tid;
int prepare(const ExportedCall& call, bool in_service) {
  const bool is_started = check_gvar('_') == 0;
  if (is(call, "TRAN_INIT") && is_started) TRAN_DONE();
  if (!is(call, "TRAN_INIT") && !is_started) TRAN_INIT();
  const int tid = ++next_tid;
  if (!in_service) return tid;
  start(tid);
  call_start({.func_nm = "db_select"}, tid);
  return tid;
}

struct Nested {
  int tid;
  bool were_inside;  // the calls were refused
  std::string faults;
} nested;

void call_from_handler(int) {
  const int interrupted_errno = errno;
  is_nested = nested.were_inside = event(nested.tid) == 105;
  // Elsewhere it may be that a name is kept, or a telegram: no handler should allocate.
  const bool makes_all = nested.were_inside || !kIsThreadSanitized;
  for (const ExportedCall& call : kExportedCalls) {
    if (!makes_all || is(call, "TRAN_SET_SVCTIMEOUT") ||
        (starts_or_stops(call) && !nested.were_inside))
      continue;
    errno = 77;
    const int result = make(call, nested.tid);
    const bool is_kept = errno == 77;
    const int refused = is(call, "TRAN_DONE") ? -1 : 105;
    const bool must_refuse = nested.were_inside && (call.says_state || starts_or_stops(call));
    if (!is_kept || (must_refuse && result != refused))
      nested.faults += std::string(call.name) + " " + std::to_string(result) + " ";
  }
  is_nested = false;
  errno = interrupted_errno;
}

// Where a traced call is inside for certain.
bool is_inside_at(std::string_view import) { return import == "syscall" || import == "semtimedop"; }

TEST_F(Calls, RefuseAnyOtherFromASignalHandlerInsideThem) {
  collector_.que_info().tong_log_flag = '1';
  in_host([&] {
    signal(SIGUSR1, call_from_handler);
    interruption.happens = [] { raise(SIGUSR1); };
    for (const ExportedCall& call : kExportedCalls) {
      if (is(call, "TRAN_SET_SVCTIMEOUT")) continue;
      for (const bool in_service : {false, true}) {
        SCOPED_TRACE(std::string(call.name) + (in_service ? " in a service" : " of a new thread"));
        next_tid %= 2000;
        nested.tid = prepare(call, in_service);
        collector_.read_all();
        const int plain = make_interrupted(call, nested.tid, kNowhere);
        const std::size_t sent = collector_.read_all().size();
        const std::vector<std::size_t> passed = interruption.passed;
        for (const std::size_t at : places_in(passed)) {
          nested = {prepare(call, in_service), false, ""};
          collector_.read_all();
          const int result = make_interrupted(call, nested.tid, at);
          const std::string_view import = imports()[passed[at - 1]].name;
          const std::size_t sent_now = read_whole_records();
          if (interruption.passed.size() < at) continue;  // another way than before
          EXPECT_EQ(nested.faults, "") << "inside " << import;
          EXPECT_TRUE(nested.were_inside || !call.says_state || !is_inside_at(import)) << import;
          if (nested.were_inside) {
            EXPECT_EQ(result, plain) << "inside " << import;
            EXPECT_EQ(sent_now, sent) << "inside " << import;
          }
        }
      }
    }
    prepare(kExportedCalls[0], false);
    expect_works();
  });
}

TEST_F(Calls, AServiceTimeOutInsideAnyCallCounts) {
  in_host([&] {
    static int code;
    int interrupted = 0;
    signal(SIGUSR1, [](int) {
      nested.were_inside = event(nested.tid) == 105;
      if (nested.were_inside) code = TRAN_SET_SVCTIMEOUT(nested.tid);
    });
    interruption.happens = [] { raise(SIGUSR1); };
    for (const ExportedCall& call : kExportedCalls) {
      if (ends_tracing(call)) continue;
      const int tid = prepare(call, true);
      make_interrupted(call, tid, kNowhere);
      for (const std::size_t at : places_in(interruption.passed)) {
        nested = {prepare(call, true), false, ""};
        make_interrupted(call, nested.tid, at);
        if (!nested.were_inside) continue;
        ++interrupted;
        EXPECT_EQ(code, 105) << call.name;
        EXPECT_EQ(check_gvar('_'), 126) << call.name;
        EXPECT_EQ(TRAN_DONE(), 0) << call.name;
        break;
      }
    }
    EXPECT_GT(interrupted, 20);
  });
}

// ---- Cancellation ----

// A thread that makes one call in the given state and is to be cancelled.
struct Cancelled {
  const ExportedCall& call;
  bool in_service;
  std::size_t at;  // cancelled there, at any point; 0: before the call, at the host's next point
  bool has_completed = false;
};

void* make_and_be_cancelled(void* argument) {
  Cancelled& self = *static_cast<Cancelled*>(argument);
  const int tid = prepare(self.call, self.in_service);
  if (self.at == 0) {
    pthread_cancel(pthread_self());
    make(self.call, tid);
  } else {
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    make_interrupted(self.call, tid, self.at);
  }
  self.has_completed = true;
  set_on_import(nullptr);
  pthread_testcancel();
  return nullptr;
}

TEST_F(Calls, LeaveNoLockWhereTheirThreadIsCancelled) {
  collector_.que_info().tong_log_flag = '1';
  in_host([&] {
    interruption.happens = [] { pthread_cancel(pthread_self()); };
    for (const ExportedCall& call : kExportedCalls) {
      for (const bool in_service : {false, true}) {
        SCOPED_TRACE(std::string(call.name) + (in_service ? " in a service" : " of a new thread"));
        make_interrupted(call, prepare(call, in_service), kNowhere);
        std::vector<std::size_t> places = places_in(interruption.passed);
        places.insert(places.begin(), 0);
        for (const std::size_t at : places) {
          next_tid %= 2000;
          Cancelled cancelled = {call, in_service, at};
          pthread_t thread;
          void* result = nullptr;
          ASSERT_EQ(pthread_create(&thread, nullptr, make_and_be_cancelled, &cancelled), 0);
          pthread_join(thread, &result);
          set_on_import(nullptr);
          EXPECT_TRUE(result == PTHREAD_CANCELED || !cancelled.has_completed ||
                      at > interruption.passed.size())
              << at;
          EXPECT_TRUE(cancelled.has_completed || at != 0);
          if (check_gvar('_') == 126) TRAN_DONE();
          prepare(kExportedCalls[0], false);
          EXPECT_EQ(event(++next_tid), 0) << at;
          read_whole_records();
        }
        expect_works();
      }
    }
  });
}

// ---- Small stacks ----

// A stack with nothing below it.
char* stack_of(std::size_t bytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  char* const pages = static_cast<char*>(mmap(nullptr, bytes + page, PROT_READ | PROT_WRITE,
                                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0));
  mprotect(pages, page, PROT_NONE);
  return pages + page;
}

// A life of one's own, in several states.
void live(int) {
  TRAN_DONE();
  for (const ExportedCall& call : kExportedCalls) make(call, ++next_tid);
  for (const ExportedCall& call : kExportedCalls) make(call, -1);
  TRAN_INIT();
}

TEST_F(Calls, WorkOnStacksOf32KilobytesAndOfHandlersWith16) {
  if (kIsSanitized) GTEST_SKIP() << "the sanitizers' frames are several times as large";
  collector_.que_info().tong_log_flag = '1';
  collector_.environment["VARN_CONSOLE"] = "on";
  EXPECT_TRUE(collector_.run([&] {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    constexpr std::size_t kThread = 32768, kHandler = 16384;
    pthread_attr_t small;
    pthread_attr_init(&small);
    pthread_attr_setstack(&small, stack_of(kThread), kThread);
    pthread_t thread;
    const auto live_there = [](void*) -> void* {
      live(0);
      return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &small, live_there, nullptr), 0);
    pthread_join(thread, nullptr);

    const stack_t handlers = {stack_of(kHandler), 0, kHandler};
    ASSERT_EQ(sigaltstack(&handlers, nullptr), 0);
    struct sigaction action = {};
    action.sa_handler = live;
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGUSR1, &action, nullptr);
    raise(SIGUSR1);
    expect_works();
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
  }));
}

// ---- Forks at the worst moment ----

bool calls(std::size_t import, std::string_view name) { return imports()[import].name == name; }

TEST_F(Calls, AForkWaitsForTheThreadThatAsksForTheLocalTime) {
  in_host([] {
    static std::atomic<bool> is_inside, has_forked;
    set_on_import([](std::size_t import) {
      if (calls(import, "localtime_r") && !is_inside.exchange(true))
        wait_until([] { return has_forked.load(); }, 200ms);
      return 0;
    });
    std::thread other([] { event(5); });
    ASSERT_TRUE(wait_until([] { return is_inside.load(); }));
    const auto begun = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) _exit(0);
    has_forked = true;
    EXPECT_GT(std::chrono::steady_clock::now() - begun, 100ms);
    waitpid(child, nullptr, 0);
    other.join();
    set_on_import(nullptr);
  });
}

TEST_F(Calls, AForkWhereTheTablesSemaphoreIsHeldLeavesItTheParents) {
  in_host([&] {
    static std::atomic<pid_t> child = -1;
    set_on_import([](std::size_t import) {  // the line of a new entry is written with it held
      if (calls(import, "write") && child < 0) child = fork();
      return 0;
    });
    event(5);
    set_on_import(nullptr);
    if (child == 0) _exit(0);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(semctl(collector_.ptrc_semid(), 0, GETVAL), 1);
    EXPECT_EQ(semctl(collector_.ptrc_semid(), 0, GETPID), getpid());
  });
}

// ---- An instrumented allocator ----

std::atomic<int> nested_calls;
thread_local bool is_hosts_thread;

bool takes_telegram(const ExportedCall& call) {
  return call.texts.data() == std::data(kTelegramTexts);
}
bool is_of_profile(const ExportedCall& call) {
  return call.name.find("PROFILE") != call.name.npos || call.name.starts_with("__cyg_profile");
}

// What a host's own allocator does that is compiled with instrumentation, and traced.
int call_from_allocator(std::size_t import) {
  thread_local int depth = 0;
  const Kind kind = imports()[import].kind;
  if (kind != Kind::kAllocates && kind != Kind::kFrees) return 0;
  if (depth > 0) ADD_FAILURE() << "a call that the allocator makes allocates";
  if (depth > 2) std::abort();
  ++depth;
  ++nested_calls;
  for (const ExportedCall& call : kExportedCalls)
    if (call.name.starts_with("__cyg_profile") || is(call, "TRAN_EVENT") ||
        (is_hosts_thread && takes_telegram(call)))
      make(call, -1);
  --depth;
  return 0;
}

TEST_F(Calls, MayBeMadeByTheAllocatorThatTheyUse) {
  const int telegrams = rounds(100'000, 1);
  collector_.que_info().tong_log_flag = '1';
  in_host([&] {
    is_hosts_thread = true;
    set_on_import(call_from_allocator);
    for (int n = 0; n < telegrams / 2; ++n)
      for (const ExportedCall& call : kExportedCalls)
        if (takes_telegram(call) || is_of_profile(call)) make(call, -1);
    EXPECT_EQ(TRAN_DONE(), 0);
    EXPECT_GE(nested_calls, telegrams);
    set_on_import(nullptr);
  });
  const std::string count = "(I) tong log: " + std::to_string(telegrams) + " written, 0 dropped";
  EXPECT_EQ(collector_.count_logged(count), 1);
}

}  // namespace
}  // namespace varn::test
