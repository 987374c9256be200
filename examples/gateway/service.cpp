#include "service.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "business.h"
#include "trace.h"
#include "varn/tran.hpp"

namespace gateway {
namespace {

std::string won(std::int64_t amount) {
  std::string digits = std::to_string(amount);
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, 1, ',');
  return digits + "원";
}

std::optional<std::int64_t> number_of(std::string_view digits) {
  std::int64_t number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [rest, fault] = std::from_chars(digits.data(), end, number);
  if (fault != std::errc() || rest != end || number <= 0) return std::nullopt;
  return number;
}

Outcome unknown_account(std::string_view number) {
  return {
      '1',
      {{"계좌번호"}, {{"GWY001001", "없는 계좌번호입니다. [" + std::string(number) + "]"}}, {}}};
}

std::optional<Account> find_account(const Ledger& ledger, std::string_view number) {
  varn::Call call(__func__);
  std::optional<Account> account = ledger.find(number);
  call.set_rc(account ? 0 : 1);
  return account;
}

Outcome balance(const Ledger& ledger, const Telegram& request, Telegram& response) {
  const auto account = find_account(ledger, request.get(kAccount));
  if (!account) return unknown_account(request.get(kAccount));
  inform(request,
         "잔액을 조회하였습니다. [" + account->holder + ", " + won(account->balance) + "]");
  response.set(kHolder, account->holder);
  response.set(kBalance, std::to_string(account->balance));
  return {};
}

// What is wrong with the request itself, whatever the accounts hold.
Outcome check_fields(const Telegram& request) {
  varn::Call call(__func__);
  ErrorPart part;
  if (request.get(kCounterAccount).empty()) {
    part.items.emplace_back("상대계좌번호");
    part.messages.push_back({"GWY009002", "상대계좌번호가 없습니다."});
  }
  if (!number_of(request.get(kAmount))) {
    part.items.emplace_back("거래금액");
    part.messages.push_back(
        {"GWY009003", "거래금액이 숫자가 아닙니다. [" + std::string(request.get(kAmount)) + "]"});
  }
  if (part.items.empty()) return {};
  call.set_rc(1);
  part.additional = {{"GWY009901", "전문 설계서의 이체 요청부를 확인하십시오."},
                     {"GWY009902", "거래는 처리되지 않았습니다."},
                     {"GWY009903", "문의: 채널연계팀 (02) 555-0101"}};
  return {'9', part};
}

Outcome check_counter_bank(std::string_view bank) {
  varn::Call call(__func__);
  if (bank.empty()) return {};
  call.set_rc(varn::kFailedRc);
  if (bank == kBankWithoutAnswer) return {'8', {{"상대은행"}, {}, {}}};  // nor is there a reason
  return {'8',
          {{"상대은행"},
           {{"GWY008001", "상대은행 시스템 점검 중입니다. [" + std::string(bank) + "]"}},
           {{"GWY008901", "점검 시간: 00:00 - 04:00"}}}};
}

Outcome transfer(Ledger& ledger, const Telegram& request, Telegram& response) {
  if (Outcome outcome = check_fields(request); outcome.result != '0') return outcome;
  if (Outcome outcome = check_counter_bank(request.get(kCounterBank)); outcome.result != '0')
    return outcome;
  const auto from = find_account(ledger, request.get(kAccount));
  const auto to = find_account(ledger, request.get(kCounterAccount));
  if (!from) return unknown_account(request.get(kAccount));
  if (!to) return unknown_account(request.get(kCounterAccount));
  const std::int64_t amount = *number_of(request.get(kAmount));
  if (!ledger.transfer(request.get(kAccount), request.get(kCounterAccount), amount))
    return {'1',
            {{"거래금액"},
             {{"GWY001004", "잔액이 부족합니다. [" + from->holder + "]"}},
             {{"GWY001901", "출금 가능 금액: " + won(from->balance)},
              {"GWY001902", "요청 금액: " + won(amount)}}}};
  inform(request,
         "이체하였습니다. [" + from->holder + " -> " + to->holder + ", " + won(amount) + "]");
  response.set(kHolder, to->holder);
  return {};
}

Outcome unknown_service(std::string_view service) {
  return {'9',
          {{},
           {{"GWY009004", "없는 서비스입니다. [" + std::string(service) + "]"}},
           {{"GWY009904", "서비스 등록 여부를 확인하십시오."}}}};
}

}  // namespace

Outcome serve(Ledger& ledger, const Telegram& request, Telegram& response) {
  const std::string_view service = request.get(_RECV_SVC_CD);
  if (request.bytes().size() < kHeaderSize)
    return {'9', {{}, {{"GWY009001", "전문이 헤더보다 짧습니다."}}, {}}};
  if (service == kBalanceService || service == kClientHandlerService)
    return balance(ledger, request, response);
  if (service == kTransferService) return transfer(ledger, request, response);
  return unknown_service(service);
}

}  // namespace gateway
