// A record as a JSON object on one line: all its fields by name.
#pragma once

#include <string>

#include "collector/decode.h"

namespace varn {

std::string json_line(int queue, std::size_t size, const DecodedRecord& record);

}  // namespace varn
