// What the gateway makes of a telegram: another telegram. Both are traced.
#pragma once

#include <string>
#include <string_view>

#include "ledger.h"
#include "telegram.h"

namespace gateway {

// The answer to a whole telegram, ready to be sent.
std::string answer(Ledger& ledger, const Telegram& request);

// The answer to what was not a whole telegram: an error telegram, with as much of the header as has
// come. The operators are told.
std::string refuse(std::string_view received, std::string_view reason);

// Reasons for it, in EUC-KR.
extern const std::string_view kBadLength;
extern const std::string_view kCutOff;

// Whether a request is for the client handler, whose services begin with "CLH".
bool is_client_handlers(const Telegram& request);

}  // namespace gateway
