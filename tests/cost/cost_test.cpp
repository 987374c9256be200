// A traced call allocates nothing and makes no system call but the one that sends its record.
#include <gtest/gtest-spi.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "bench/telegram.h"
#include "cost/counting.h"
#include "records/calls.h"
#include "varn/tran.h"

namespace varn::test {
namespace {

constexpr std::uint64_t kNever = 1'000'000'000;  // calls take no thousand seconds

const ServiceArgs kServiceArgs = {.gid = "20240102030405GIDAAAAAAAAAAAAA01", .svc_id = "SVC_A"};
const PartialArgs kPartial = {.gid = "20240102030405GIDAAAAAAAAAAAAA01", .svc_id = "SVC_P"};
const NoticeArgs kNotice = {.gid = "20240102030405GIDAAAAAAAAAAAAA01",
                            .svc_id = "SVC_A",
                            .code = "9000",
                            .message = "text"};
constexpr char kStatement[] = "SELECT balance FROM account WHERE branch = :1 AND no = :2";

void hooked_function() {
  const auto function = reinterpret_cast<void*>(&hooked_function);
  __cyg_profile_func_enter(function, nullptr);
  __cyg_profile_func_exit(function, nullptr);
}
void business_call() { call_start("check_limit"), call_end("check_limit"); }
void database_call() {
  call_start("db_select");
  TRAN_SQL_ID(kThread, "account.balance", -1);
  TRAN_SET_DBIO_STS(kThread, 1);
  TRAN_SQL_STMT(kThread, TRAN_SQL_ADD, nullptr, 0, nullptr, 0, 1, nullptr, nullptr, kStatement);
  TRAN_SET_FETCH_INFO(kThread, 3, 1200, 42);
  TRAN_CHECK_SQL_TIME(kThread, 100);
  call_end("db_select");
}
void telegram_service() { bench::start_by_telegram(), bench::end_by_telegram(); }

// Their records, where calls of any length are recorded.
const std::vector<CountedCase> kOutsideService = {
    {"service", 2, [] { start(kServiceArgs), end(kServiceArgs); }},
    {"service of the calling thread", 2, [] { start(kServiceArgs, -1), end(kServiceArgs, -1); }},
    {"partial service", 2, [] { pt_start(kPartial), pt_end(kPartial); }},
    {"service by telegrams", 2, telegram_service},
    {"extended information", 1, [] { info_ex(kNotice); }},
    {"event", 1, [] { event(kNotice); }},
    {"questions", 0, [] { check_gvar('1'), TRAN_SET_TIME(kThread); }},
};
const std::vector<CountedCase> kInsideService = {
    {"nested service", 2, [] { start(kServiceArgs), end(kServiceArgs); }},
    {"error", 1, [] { error(kServiceArgs); }},
    {"information", 1, [] { info(kNotice); }},
    {"error information", 1, [] { errinfo(kNotice); }},
    {"business call", 1, business_call},
    {"database call", 2, database_call},
    {"failed statement", 2,
     [] {
       call_start("db_insert");
       TRAN_SET_SQLCA_INFO(kThread, -1, "unique constraint", 42);
       call_end("db_insert");
     }},
    {"instrumented function", 1, hooked_function},
};
const std::vector<CountedCase> kFlatServices = {
    {"client handler", 3,
     [] { clh_start(kServiceArgs), clh_error(kServiceArgs), clh_end(kServiceArgs); }},
    {"web", 2, [] { web_start(kPartial), web_end(kPartial); }},
    {"front end", 0,
     [] {
       TRAN_FEP_START(kThread, nullptr, 0, nullptr, 0);
       TRAN_FEP_END(kThread, nullptr, 0, nullptr, 0);
     }},
};

class Cost : public testing::Test {
 protected:
  static void open_services() {
    TRAN_ADD_PROFILE(reinterpret_cast<std::uint64_t>(&hooked_function), "check_limit");
    start(kServiceArgs);
    start(kServiceArgs, -1);  // the hooks'
  }
  FakeCollector collector{{.queues = 1}};
};

TEST_F(Cost, CountsWhatItIsToFind) {
  EXPECT_NONFATAL_FAILURE(expect_costs(collector, [] {}, {{"getppid", 0, [] { getppid(); }}}),
                          "110");
}

TEST_F(Cost, OfServicesAndNotices) {
  expect_costs(
      collector, [] {}, kOutsideService);
}

TEST_F(Cost, OfWhatIsReportedInsideAService) {
  expect_costs(collector, open_services, kInsideService);
}

TEST_F(Cost, OfFlatServices) {
  expect_costs(
      collector, [] {}, kFlatServices);
}

TEST_F(Cost, OfCallsTooShortToBeRecorded) {
  TRAN_LOGF_QUE_INFO& settings = collector.que_info();
  settings.call_trc_limit = settings.dbio_trc_limit = settings.sql_trc_limit = kNever;
  expect_costs(collector, open_services,
               {{"business call", 0, business_call},
                {"database call", 0, database_call},
                {"instrumented function", 0, hooked_function}});
}

TEST_F(Cost, OfALoggedTelegramIsOneAllocation) {
  collector.que_info().tong_log_flag = '1';
  expect_costs(collector, [] {}, {{"service by telegrams", 2, telegram_service, 2}});
}

TEST_F(Cost, OfWhatIsSwitchedOff) {
  collector.que_info().log_flag_set = 0;
  std::vector<CountedCase> cases = kOutsideService;
  cases.insert(cases.end(), kInsideService.begin(), kInsideService.end());
  for (CountedCase& counted : cases) counted.records = 0;
  expect_costs(
      collector, [] {}, cases);
}

TEST_F(Cost, OfRecordsThatFindNoRoom) {
  expect_costs(
      collector,
      [this] {
        open_services();
        const int queue = collector.object(kTranLogfMsgqKey).id();
        const Record record = {.mtype = kRecordMsgType, .length = kBodyAt, .view = {}};
        while (msgsnd(queue, &record, kRecordTextSize, IPC_NOWAIT) == 0) {
        }
        ASSERT_EQ(info(kNotice), TRAN_RC_NOT_SENT);
      },
      kInsideService);
}

}  // namespace
}  // namespace varn::test
