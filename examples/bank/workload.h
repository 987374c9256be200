// The accounts and the requests of a day at the bank, the same in every run.
#pragma once

#include <random>
#include <vector>

#include "db.h"
#include "request.h"

namespace bank {

std::vector<Account> sample_accounts();

class Workload {
 public:
  // Most requests are between these accounts; a few name one that does not exist.
  explicit Workload(std::vector<Account> accounts) : accounts_(std::move(accounts)) {}

  Request next();

 private:
  std::size_t below(std::size_t bound);

  std::vector<Account> accounts_;
  std::mt19937 random_{20180518};
};

}  // namespace bank
