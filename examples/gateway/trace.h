// How the gateway is traced: from the telegram that comes in to the one that goes out.
#pragma once

#include <string>
#include <string_view>

#include "telegram.h"

namespace gateway {

// The service that a request asks for, from here until its answer is there, on one thread.
class TracedService {
 public:
  explicit TracedService(const Telegram& request);

  void end(const Telegram& response) const;

 private:
  std::string gid_;
  std::string svc_id_;
  int start_rc_;
};

// Tells something of a request while it is served, in EUC-KR.
void inform(const Telegram& request, std::string_view message);

// Tells the operators of what was not a whole telegram.
void report_broken(const Telegram& received, std::string_view reason);

}  // namespace gateway
