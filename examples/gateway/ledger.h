// The accounts behind the gateway.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace gateway {

struct Account {
  std::string holder;  // EUC-KR
  std::int64_t balance;
};

class Ledger {
 public:
  Ledger();

  std::optional<Account> find(std::string_view number) const;

  // False, and nothing is moved, when there is not enough to take or an account is unknown.
  bool transfer(std::string_view from, std::string_view to, std::int64_t amount);

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Account, std::less<>> accounts_;
};

}  // namespace gateway
