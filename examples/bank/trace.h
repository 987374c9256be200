// Tracing as the bank's services use it: a transaction's texts by name, a guard that opens and
// closes a service, and the notices in between. Messages are UTF-8 here and EUC-KR in the records.
#pragma once

#include <string_view>

#include "outcome.h"
#include "varn/tran.h"

namespace bank::trace {

// The 29 texts of a transaction. One that is not set is passed as null.
struct Texts {
#define BANK_TEXT(name, width) std::string_view name = {};
  TRAN_FIELD_LIST(BANK_TEXT)
#undef BANK_TEXT
};

// A service of the calling thread, from its start to its end. What `texts` refers to must outlive
// it. Left by an exception, it ends as failed.
class Service {
 public:
  explicit Service(const Texts& texts);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // The outcome that the end is to carry.
  void set_outcome(const Outcome& outcome);

  // Reports that the transaction has not been done, for the service as a whole.
  void error();

 private:
  Texts texts_;
  char result_ = '9';
};

// For the innermost open service.
void info(std::string_view message);
void error_info(const Outcome& outcome);  // what was found wrong, where it was found
void event(std::string_view code, std::string_view gid, std::string_view svc_id,
           std::string_view message);  // for the operators

}  // namespace bank::trace
