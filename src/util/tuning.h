// Two texts of the configuration file that stand for words of the shared tuning values. The creator
// of the segment and the agent's exported converters both read them here.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "layout/record.h"
#include "util/shared_word.h"

namespace varn {

// The bits of TRAN_LOG_FLAG_SET's letters. Letters that name no record kind are ignored; null gives
// 0.
inline std::uint8_t log_flags_of(const char* letters) {
  std::uint8_t flags = 0;
  if (letters == nullptr) return flags;
  for (; *letters != '\0'; ++letters)
    for (const RecordKind& kind : kRecordKinds)
      if (kind.log_letter == *letters) flags = static_cast<std::uint8_t>(flags | kind.log_flag);
  return flags;
}

// Applies one value CODE,CLASS of FST_ERR_RC_SET: the class of the return codes of CODE's
// magnitude, 128 standing for all. 0; or -1 with nothing changed when the text is anything else.
// `classes` may lie in a segment that others read meanwhile.
inline int set_err_rc_class(std::int8_t (&classes)[128], const char* text) {
  if (text == nullptr) return -1;
  const char* const comma = std::strchr(text, ',');
  if (comma == nullptr) return -1;
  int code = 0;
  const auto [end, fault] = std::from_chars(text, comma, code);
  if (fault != std::errc() || end != comma) return -1;
  if (comma[1] < '0' || comma[1] > '2' || comma[2] != '\0') return -1;
  if (code < -128 || code > 128) return -1;
  const auto rc_class = static_cast<std::int8_t>(comma[1] - '0');
  const int magnitude = code < 0 ? -code : code;
  if (magnitude < 128) {
    store(classes[magnitude], rc_class);
  } else {
    for (std::int8_t& each : classes) store(each, rc_class);
  }
  return 0;
}

}  // namespace varn
