// Tuning values as the configuration file writes them, for the agent's exported converters and for
// the creator of the segment that holds them.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "layout/record.h"

namespace varn {

// The byte of record kinds for a string of their letters; other characters are ignored.
inline std::uint8_t log_flags_of(const char* letters) {
  std::uint8_t flags = 0;
  if (letters == nullptr) return flags;
  for (const char* c = letters; *c != '\0'; ++c)
    for (const RecordKind& kind : kRecordKinds)
      if (kind.log_letter == *c) flags = static_cast<std::uint8_t>(flags | kind.log_flag);
  return flags;
}

// Sets the class of the return codes of one magnitude from "CODE,CLASS"; a magnitude of 128 sets
// them all. 0, or -1 for a malformed value.
inline int set_err_rc_class(std::int8_t (&classes)[128], const char* text) {
  constexpr long kAllCodes = 128;
  if (text == nullptr) return -1;
  char* end = nullptr;
  const long code = std::strtol(text, &end, 10);
  if (end == text || *end != ',') return -1;
  const char digit = end[1];
  if (digit < '0' || digit > '2' || end[2] != '\0') return -1;
  if (code > kAllCodes || code < -kAllCodes) return -1;
  const auto error_class = static_cast<std::int8_t>(digit - '0');
  const long magnitude = code < 0 ? -code : code;
  if (magnitude == kAllCodes)
    std::memset(classes, error_class, sizeof classes);
  else
    classes[magnitude] = error_class;
  return 0;
}

}  // namespace varn
