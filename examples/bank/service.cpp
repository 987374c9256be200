#include "service.h"

#include <string>
#include <string_view>

#include "examples/common/gid.h"
#include "trace.h"

namespace bank {
namespace {

constexpr std::int64_t kLargeTransfer = 10'000'000;
constexpr std::string_view kLargeTransferEvent = "2001";
constexpr std::string_view kTransfer = "XFER0001";
constexpr std::string_view kNotification = "NOTI0001";
constexpr std::string_view kMobile = "MBK";
constexpr std::string_view kDone = "BNK000000";

// What all services of one request have in common: the head of the telegram that asked for it.
varn::Texts texts_of(const Request& request, std::string_view svc_id) {
  return {.gid = request.gid,
          .svc_id = svc_id,
          .trsc_grco_br = "010101",
          .chnl_typ_cd = request.channel,
          .recv_svc_cd = kTransfer,
          .scrn_id = request.screen,
          .emp_no = request.employee,
          .ipv6_adr = request.address,
          .fst_trms_sys_cd = request.channel,
          .trms_sys_cd = "BNK",
          .trsc_sync_dv_cd = "S"};
}

std::string_view date_of(const Request& request) {
  return std::string_view(request.gid).substr(0, 8);
}

std::string won(std::int64_t amount) {
  std::string digits = std::to_string(amount);
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, ",");
  return digits + "원";
}

// Reported in the service that found it.
Outcome refuse(std::string_view code, std::string message) {
  Outcome outcome = {'1', code, std::move(message)};
  trace::error_info(outcome);
  return outcome;
}

Outcome fail(const DbError& error) {
  Outcome outcome = {'9', "BNK009001", std::string("원장 DB 오류: ") + error.what()};
  trace::error_info(outcome);
  return outcome;
}

Outcome check_account(const std::optional<Account>& account, const std::string& number) {
  varn::Call call(__func__);
  Outcome outcome;
  if (!account)
    outcome = refuse("BNK001001", "없는 계좌번호입니다. [" + number + "]");
  else if (account->frozen)
    outcome = refuse("BNK001002", "거래정지 계좌입니다. [" + number + " " + account->holder + "]");
  call.set_rc(trace::rc_of(outcome));
  return outcome;
}

// HIST0001: what the account has sent today.
std::int64_t sent_today(Database& db, const Request& request) {
  trace::Service service(texts_of(request, "HIST0001"));
  const std::int64_t sent = db_sum_sent(db, request.from, date_of(request));
  service.set_outcome({});
  return sent;
}

// LIMIT001: whether the transfer stays within the sender's daily limit.
Outcome check_limit(Database& db, const Request& request, const Account& from) {
  trace::Service service(texts_of(request, "LIMIT001"));
  varn::Call call(__func__);
  const std::int64_t sent = sent_today(db, request);
  Outcome outcome;
  if (sent + request.amount > from.daily_limit)
    outcome =
        refuse("BNK001003", "1일 이체한도를 초과하였습니다. [한도 " + won(from.daily_limit) +
                                ", 금일 이체 " + won(sent) + ", 요청 " + won(request.amount) + "]");
  call.set_rc(trace::rc_of(outcome));
  service.set_outcome(outcome);
  return outcome;
}

// ACCT0001: takes an amount from an account or puts one into it. Whether there is enough to take is
// for the database to say.
Outcome post(Database& db, const Request& request, const Account& account, std::int64_t amount) {
  trace::Service service(texts_of(request, "ACCT0001"));
  varn::Call call(__func__);
  Outcome outcome;
  try {
    db_add_to_balance(db, account.number, amount);
    trace::info((amount < 0 ? "출금 " + won(-amount) : "입금 " + won(amount)) + " [" +
                account.number + " " + account.holder + "]");
  } catch (const DbError& error) {
    if (!error.is_violation()) throw;
    outcome = refuse("BNK001004", "잔액이 부족합니다. [" + account.holder + ", 잔액 " +
                                      won(account.balance) + ", 요청 " + won(-amount) + "]");
  }
  call.set_rc(trace::rc_of(outcome));
  service.set_outcome(outcome);
  return outcome;
}

void report_large_transfer(const Request& request, const Account& from, const Account& to) {
  if (request.amount < kLargeTransfer) return;
  const varn::Call call(__func__);
  trace::event(kLargeTransferEvent, request.gid, kTransfer,
               "고액 이체가 발생하였습니다. [" + from.holder + " -> " + to.holder + ", " +
                   won(request.amount) + "]");
}

// Everything a transfer writes, in one database transaction.
Outcome book(Database& db, const Request& request) {
  Transaction transaction(db);
  const auto from = db_select_account(db, request.from);
  const auto to = db_select_account(db, request.to);
  if (Outcome outcome = check_account(from, request.from); !outcome.done()) return outcome;
  if (Outcome outcome = check_account(to, request.to); !outcome.done()) return outcome;
  if (Outcome outcome = check_limit(db, request, *from); !outcome.done()) return outcome;
  if (Outcome outcome = post(db, request, *from, -request.amount); !outcome.done()) return outcome;
  if (Outcome outcome = post(db, request, *to, request.amount); !outcome.done()) return outcome;
  db_insert_transfer(db, request.gid, date_of(request), request.from, request.to, request.amount);
  db_insert_audit(db, request.gid, kTransfer, kDone, "이체 " + won(request.amount));
  transaction.commit();
  report_large_transfer(request, *from, *to);
  return {};
}

// NOTI0001: tells the customer's telephone. A transaction of its own, with its own GID, since
// messages are sent and charged apart from what caused them. When it fails, the transfer stands.
void notify(Database& db, const Request& request) {
  const std::string gid = example::new_gid("BNK");
  varn::Texts texts = texts_of(request, kNotification);
  texts.gid = gid;
  texts.recv_svc_cd = kNotification;
  trace::Service service(texts);
  try {
    db_insert_audit(db, gid, kNotification, kDone, "알림 요청: 이체 " + won(request.amount));
    trace::info("이체 완료 알림을 요청하였습니다.");
    service.set_outcome({});
  } catch (const DbError& error) {
    service.set_outcome(fail(error));
    service.error();
  }
}

Outcome attempt(Database& db, const Request& request) {
  try {
    varn::Call call(__func__);
    Outcome outcome = book(db, request);
    call.set_rc(trace::rc_of(outcome));
    if (!outcome.done()) db_insert_audit(db, request.gid, kTransfer, outcome.code, outcome.message);
    return outcome;
  } catch (const DbError& error) {
    return fail(error);
  }
}

}  // namespace

Outcome transfer(Database& db, const Request& request) {
  trace::Service service(texts_of(request, kTransfer));
  trace::info("이체 접수 [" + request.from + " -> " + request.to + ", " + won(request.amount) +
              "]");
  Outcome outcome = attempt(db, request);
  service.set_outcome(outcome);
  if (!outcome.done())
    service.error();
  else if (request.channel == kMobile)
    notify(db, request);
  return outcome;
}

}  // namespace bank
