// The services behind the gateway.
#pragma once

#include "ledger.h"
#include "telegram.h"

namespace gateway {

struct Outcome {
  char result = '0';    // '0' done, '1' refused, '8' failed outside, '9' failed here
  ErrorPart part = {};  // of all but '0'
};

// Does what the request asks for, and adds to the response what it asks to know.
Outcome serve(Ledger& ledger, const Telegram& request, Telegram& response);

}  // namespace gateway
