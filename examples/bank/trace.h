// What the bank adds to the guards of varn/tran.hpp: its telegram's conventions, and EUC-KR in the
// records for the UTF-8 that it works with.
#pragma once

#include <string>
#include <string_view>

#include "outcome.h"
#include "varn/tran.hpp"

namespace bank::trace {

// A service that answers a request: its start carries the request, its end the response.
class Service {
 public:
  explicit Service(const varn::Texts& texts);

  // The outcome that the end is to carry.
  void set_outcome(const Outcome& outcome);

  // Reports that the transaction has not been done, for the service as a whole.
  void error() { service_.error(); }

 private:
  varn::Service service_;
};

// The return code of a call that ended so: 0 done, 1 refused, negative failed.
int rc_of(const Outcome& outcome);

// For the innermost open service.
void info(std::string_view message);
void error_info(const Outcome& outcome);  // what was found wrong, where it was found
void event(std::string_view code, std::string_view gid, std::string_view svc_id,
           std::string_view message);  // for the operators

// What has no place in EUC-KR becomes a question mark.
std::string to_euc_kr(std::string_view utf8);

}  // namespace bank::trace
