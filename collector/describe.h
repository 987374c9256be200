// What a record says, in words: the parts that every way of showing it shares. All in UTF-8.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "collector/call_text.h"
#include "collector/decode.h"

namespace varn {

// A process or thread id without the zeros that fill it; a text of the caller's own as it is.
std::string id_text(std::string_view bytes);

// HH:MM:SS.micros of a header's time; a text of the caller's own as it is.
std::string time_text(std::string_view bytes);

// Microseconds as milliseconds with three decimals.
std::string milliseconds_text(std::int64_t us);

// The kind's name.
std::string kind_text(const DecodedRecord& record);

// A service record's texts that are of use to whoever looks for the cause of something.
std::string service_text(const DecodedRecord& record);

// "[CODE] MESSAGE" of information, events and errors.
std::string notice_text(const DecodedRecord& record);

// "FUNCTION at PLACE (SOURCE:LINE)", with the label unless it is a usual one, and without a place
// that is the function itself.
std::string call_text(const CallText& call);

// The return code, and of a database call what its SQL came to. Empty where all is well and there
// is nothing to tell.
std::string outcome_text(const CallText& call);

}  // namespace varn
