// The guards of varn/tran.hpp, beside the plain calls that they stand for.
#include "varn/tran.hpp"

#include <atomic>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "records/calls.h"

// Counts what the process takes from the heap, `new` included.
static std::atomic<int> allocations{0};
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizers' name, whose header may be missing
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*,
                                                                  std::size_t),
                                                         void (*)(const volatile void*));
[[maybe_unused]] static const int hooked = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { ++allocations; }, [](const volatile void*) {});
#else
// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's name
extern "C" void* __libc_malloc(std::size_t size);
extern "C" [[gnu::visibility("default")]] void* malloc(std::size_t size) noexcept {
  ++allocations;
  return __libc_malloc(size);
}
#endif

namespace varn::test {
namespace {

using GuardTest = CallTest;

// Not zero-ended, and not to be read beyond its end.
std::string_view view(const std::string& text) { return {guarded(text), text.size()}; }

const Texts& texts() {
  static const Texts kTexts = [] {
    Texts given;
    int number = 0;
#define VARN_TEST_VIEW(name, width) given.name = view("t" + std::to_string(++number));
    TRAN_FIELD_LIST(VARN_TEST_VIEW)
    given.std_tmsg_err_cd = given.date_str = given.time_str = {};
    return given;
  }();
  return kTexts;
}

ServiceArgs args_of(const Texts& given) {
  ServiceArgs args;
#define VARN_TEST_ARG(name, width) \
  args.name = {given.name.data(), static_cast<int>(given.name.size())};
  TRAN_FIELD_LIST(VARN_TEST_ARG)
  return args;
}

constexpr Place kPlace = {"book", "transfer.c", 7};
constexpr char kSelect[] = "SELECT balance FROM accounts";

void use_every_guard() {
  Service service(texts(), kThread);
  {
    Call book(view("book"), view("STEP"), kThread, kPlace);
    DbCall select(view("dbSelect"), {}, kThread, kPlace);
    advance_clock(1000);
    for (const int kind : {3, TRAN_SQL_KIND_MS}) {
      const Sql sql(kSelect, kind, kThread);
      advance_clock(2345);
    }
    select.sql_id(view("LIMIT.1"));
    select.set_sqlca(-1, view("unique"), 12);
    select.set_fetch(2, 3456, 13);
    select.set_rc(4);
    book.set_rc(-5);
  }
  varn::info({guarded(std::string(350, 'm')), (std::size_t{1} << 32) + 5}, kThread);
  varn::event({view("9001"), view("text"), view("RECV"), view("O"), view("GID"), view("SVC")},
              kThread);
  varn::error_info({view("9002"), view("text"), view("RECV"), view("O")}, kThread);
  service.set_result('1', view("ERR000001"));
  service.error();
}

void make_every_call() {
  ServiceArgs args = args_of(texts());
  start(args);
  const CallArgs book = {
      .call_at = "book", .call_src = "transfer.c", .line = 7, .func_nm = "book", .label = "STEP"};
  CallArgs select = book;
  select.func_nm = "dbSelect";
  select.label = {};
  call_start(book);
  call_start(select);
  const std::int64_t second = kMorning / 1'000'000;
  const std::int64_t from[] = {second, 1000}, to[] = {second, 3345};
  const std::int64_t from_ms = second * 1000 + 3, to_ms = second * 1000 + 5;
  advance_clock(3345);
  TRAN_SQL_STMT(kThread, TRAN_SQL_ADD, nullptr, 0, nullptr, 0, 3, from, to, kSelect);
  advance_clock(2345);
  TRAN_SQL_STMT(kThread, TRAN_SQL_ADD, nullptr, 0, nullptr, 0, 9999, &from_ms, &to_ms, kSelect);
  TRAN_SQL_ID(kThread, "LIMIT.1", -1);
  TRAN_SET_SQLCA_INFO(kThread, -1, "unique", 12);
  TRAN_SET_FETCH_INFO(kThread, 2, 3456, 13);
  select.status = 4;
  call_end(select);
  CallArgs end_of_book = book;
  end_of_book.status = -5;
  call_end(end_of_book);
  info({.message = std::string(350, 'm').c_str()});
  const NoticeArgs notice = {.gid = "GID",
                             .svc_id = "SVC",
                             .code = "9001",
                             .recv_svc_cd = "RECV",
                             .chnl_class = "O",
                             .message = "text"};
  event(notice);
  NoticeArgs found_wrong = notice;
  found_wrong.code = "9002";
  errinfo(found_wrong);
  args.proc_rslt_dv_cd = "1";
  args.std_tmsg_err_cd = "ERR000001";
  error(args);
  end(args);
}

TEST_F(GuardTest, SendWhatThePlainCallsSendOfViewsThatAreNotZeroEnded) {
  std::vector<Record> sent[2];
  std::string sql_id[2];
  trace([&] {
    for (const bool guards : {false, true}) {
      set_clock(kMorning);
      guards ? use_every_guard() : make_every_call();
      sent[guards] = collector.read_all();
      sql_id[guards] = std::string(entry().sql_id, sizeof entry().sql_id);
      std::memset(entry().sql_id, ' ', sizeof entry().sql_id);
    }
    EXPECT_EQ(types_of(sent[0]), "1VQQBCIVE9I2");
    ASSERT_EQ(types_of(sent[1]), types_of(sent[0]));
    for (std::size_t i = 0; i < sent[0].size(); ++i) {
      EXPECT_EQ(std::string(sent[1][i].view, sizeof sent[1][i].view),
                std::string(sent[0][i].view, sizeof sent[0][i].view));
      EXPECT_EQ(sent[1][i].length, sent[0][i].length);
    }
    EXPECT_EQ(sql_id[1], sql_id[0]);
    EXPECT_TRUE(sql_id[1].starts_with("LIMIT.1 "));
  });
}

// Closes what it opened while an exception passes, without failing itself.
constexpr int kCleanupLine = __LINE__ + 2;
struct Cleanup {
  ~Cleanup() { const Call call("cleanup", {}, kThread); }
};

TEST_F(GuardTest, ExceptionEndsAllAsFailedFromTheInnermostOut) {
  const auto records = trace([&] {
    try {
      Service service(texts(), kThread);
      service.set_result('0', "ERR000002");
      Call book("book", {}, kThread);
      book.set_rc(3);
      const Cleanup cleanup;
      DbCall select("dbSelect", {}, kThread);
      select.set_rc(-19);
      const Sql sql(kSelect, 0, kThread);
      throw std::runtime_error("constraint");
    } catch (const std::runtime_error&) {
      EXPECT_EQ(entry().entry_depth, 0);
    }
  });
  ASSERT_EQ(types_of(records), "1QBCCI2");
  const std::string line = std::to_string(kCleanupLine);
  const std::pair<std::size_t, std::string> parts[] = {
      {2, "[dbSelect at "},
      {2, "#RC -19 "},
      {3, "#RC 0"},
      {4, "[book at "},
      {4, "#RC -1"},
      {3, "[cleanup at ~Cleanup (tran_hpp_test.cpp::" + std::string(5 - line.size(), '0') + line},
  };
  for (const auto& [i, part] : parts) {
    const std::string body = text_of(records[i], kCallBody.back());
    EXPECT_NE(body.find(part), std::string::npos) << body << " without " << part;
  }
  EXPECT_EQ(body_field(records[6], "proc_rslt_dv_cd"), "9");
  EXPECT_EQ(body_field(records[6], "std_tmsg_err_cd"), "ERR000002");
}

TEST_F(GuardTest, RefusedStartLeavesWhatIsAroundItOpen) {
  const auto records = trace([&] {
    DbCall early("dbEarly", {}, kThread);
    EXPECT_EQ(early.start_rc(), 123);
    EXPECT_EQ(early.set_sqlca(-1), 123);
    EXPECT_EQ(early.set_fetch(1, 1), 123);
    const Service service(texts(), kThread);
    {
      collector.que_info().svc_filtering = 2;
      const Service counted(texts(), kThread);
      EXPECT_EQ(counted.rc(), 121);
      EXPECT_EQ(entry().entry_depth, 2);
    }
    collector.que_info().svc_filtering = 0;
    EXPECT_EQ(entry().entry_depth, 1);
    {
      collector.que_info().magic_code = 0;
      const Service not_counted(texts(), kThread);
      EXPECT_EQ(not_counted.rc(), 99);
      collector.que_info().magic_code = kMagicReady;
    }
    EXPECT_EQ(entry().entry_depth, 1);
    set_clock(kMorning);
    DbCall outer("dbOuter", {}, kThread);
    {
      DbCall inner("dbInner", {}, kThread);
      EXPECT_EQ(inner.start_rc(), 122);
      EXPECT_EQ(inner.set_sqlca(-1), 122);
    }
    outer.set_rc(7);
    advance_clock(5000);
  });
  EXPECT_EQ(types_of(records), "1BI2");
  const auto bodies = bodies_of(records, 'B');
  ASSERT_EQ(bodies.size(), 1U);
  EXPECT_TRUE(bodies[0].starts_with("1,10,0.005000,")) << bodies[0];
  EXPECT_NE(bodies[0].find("#RC 7 "), std::string::npos) << bodies[0];
}

TEST_F(GuardTest, NothingIsAllocated) {
  trace([&] {
    use_every_guard();  // makes the texts, and the thread's context
    const auto allocated_by = [](auto&& body) {
      const int before = allocations;
      body();
      return allocations - before;
    };
    static std::unique_ptr<int> kept;
    EXPECT_EQ(allocated_by([] { kept = std::make_unique<int>(); }), 1);
    EXPECT_EQ(allocated_by([] {
                Service service(texts(), kThread);
                Call book("book", "STEP", kThread);
                DbCall select("dbSelect", {}, kThread);
                const Sql sql(kSelect, 0, kThread);
                select.sql_id("LIMIT.1");
                select.set_sqlca(-1, "unique");
                select.set_fetch(2, 3456);
                varn::info("message", kThread);
                varn::event({"9001", "text"}, kThread);
                varn::error_info({"9002", "text"}, kThread);
                service.set_result('1', "ERR000001");
                service.error();
              }),
              0);
  });
}

}  // namespace
}  // namespace varn::test
