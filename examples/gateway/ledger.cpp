#include "ledger.h"

namespace gateway {

Ledger::Ledger()
    : accounts_{{"110-201-000001", {"김민준", 5'200'000}},
                {"110-201-000002", {"이서연", 830'000}},
                {"110-201-000003", {"박도윤", 12'400'000}},
                {"140-700-000001", {"한빛물산(주)", 150'000'000}}} {}

std::optional<Account> Ledger::find(std::string_view number) const {
  const std::lock_guard lock(mutex_);
  const auto found = accounts_.find(number);
  if (found == accounts_.end()) return std::nullopt;
  return found->second;
}

bool Ledger::transfer(std::string_view from, std::string_view to, std::int64_t amount) {
  const std::lock_guard lock(mutex_);
  const auto taken = accounts_.find(from);
  const auto given = accounts_.find(to);
  if (taken == accounts_.end() || given == accounts_.end() || taken->second.balance < amount)
    return false;
  taken->second.balance -= amount;
  given->second.balance += amount;
  return true;
}

}  // namespace gateway
