#include "workload.h"

#include <array>
#include <cstdio>
#include <string>

#include "examples/common/gid.h"

namespace bank {
namespace {

constexpr std::array kPeople{"김민준", "이서연", "박도윤", "최지우", "정하은", "강예준",
                             "조수아", "윤시우", "장지호", "임채원", "한유진", "오건우",
                             "서다은", "신현우", "권나연", "황준서", "안소율", "송태윤"};
constexpr std::array kCompanies{"한빛물산(주)", "(주)새봄전자", "푸른바다해운(주)"};

constexpr std::size_t kFrozen = 7;  // the place of the frozen account
constexpr char kUnknownNumber[] = "110-999-000000";

struct Channel {
  const char* code;
  const char* screen;
  bool has_employee;
};
constexpr std::array kChannels{
    Channel{"MBK", "MBK030110", false}, Channel{"WEB", "WEB030110", false},
    Channel{"ATM", "ATM010200", false}, Channel{"BRN", "CST110300", true}};

std::string text_of(const char* format, unsigned number) {
  char text[40];
  std::snprintf(text, sizeof text, format, number);
  return text;
}

}  // namespace

std::vector<Account> sample_accounts() {
  std::vector<Account> accounts;
  for (const char* const holder : kPeople) {
    const auto place = static_cast<unsigned>(accounts.size());
    accounts.push_back({text_of("110-201-%06u", 1 + place), holder, 200'000 + 100'000 * place,
                        3'000'000, place == kFrozen});
  }
  for (const char* const holder : kCompanies) {
    const auto place = static_cast<unsigned>(accounts.size());
    accounts.push_back(
        {text_of("140-700-%06u", 1 + place), holder, 150'000'000, 100'000'000, false});
  }
  return accounts;
}

std::size_t Workload::below(std::size_t bound) { return random_() % bound; }

Request Workload::next() {
  const Account& from = accounts_[below(accounts_.size())];
  const Account* to = &accounts_[below(accounts_.size())];
  while (to == &from) to = &accounts_[below(accounts_.size())];
  const Channel& channel = kChannels[below(kChannels.size())];
  const auto step = static_cast<std::int64_t>(from.balance >= 100'000'000 ? 500'000 : 10'000);
  return {.gid = example::new_gid("BNK"),
          .channel = channel.code,
          .screen = channel.screen,
          .employee = channel.has_employee ? text_of("20%05u", unsigned(below(400))) : "",
          .address = text_of("2001:db8:10::%x", unsigned(1 + below(0xffff))),
          .from = from.number,
          .to = below(40) == 0 ? kUnknownNumber : to->number,
          .amount = step * static_cast<std::int64_t>(1 + below(30))};
}

}  // namespace bank
