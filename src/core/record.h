// Composing a record in its thread's buffer and sending it.
#pragma once

#include <cstring>
#include <span>
#include <utility>

#include "layout/gvar.h"
#include "util/text.h"

namespace varn {

using Pairs = std::span<const Text>;

// Fills a field of the header, which the text may overlap, and the blank behind it. A text mostly
// fills its field or is not given: both cost a few instructions.
template <const Field& kField>
void put_field(char* view, Text text) {
  char* const place = view + kField.at;
  if (!text.given()) {
    std::memset(place, ' ', kField.width);
  } else if (text.len == static_cast<std::int32_t>(kField.width)) {
    char copy[kField.width];
    std::memcpy(copy, text.ptr, kField.width);
    std::memcpy(place, copy, kField.width);
  } else {
    put_padded(place, kField.width, text);
  }
  place[kField.width] = ' ';
}

// Fills the header of one of the context's two records, but for the service id, which is there
// already. The first seven pairs are a call's; `gid` stands for its GID.
void put_header(const MTR_CXT_VAR& var, TRAN_LOGF_QUE_DATA& record, const RecordKind& kind,
                Pairs head, Text gid, const Stamp& stamp);

// Fills the neighbouring fields of a table from its `kFirst` on, none of whose texts may lie in
// them. The table is known when compiling: each field costs the few instructions its width needs.
template <const auto& kFields, std::size_t kFirst = 0>
void put_fields(char* view, Pairs texts) {
  // Blank once, then what is given: most texts of a service are not.
  std::memset(view + kFields[kFirst].at, ' ', kFields.back().end() - kFields[kFirst].at);
  const auto put = [&]<std::size_t kPlace>(std::integral_constant<std::size_t, kPlace>) {
    constexpr Field kField = kFields[kFirst + kPlace];
    const Text text = texts[kPlace];
    if (text.len == static_cast<std::int32_t>(kField.width) && text.given())
      std::memcpy(view + kField.at, text.ptr, kField.width);  // as telegrams' fields come
    else
      move_text(view + kField.at, text.ptr, text.size(kField.width), kField.width);
  };
  [&]<std::size_t... kPlaces>(std::index_sequence<kPlaces...>) {
    (put(std::integral_constant<std::size_t, kPlaces>{}), ...);
  }
  (std::make_index_sequence<kFields.size() - kFirst>{});
}

// Sets the length and blanks what a longer record left behind the body.
void close_record(MTR_CXT_VAR& var, const RecordKind& kind);

// Sends a record to the queue that its GID's hash chooses: the queue's number; 105 when it could
// not be put there, which is counted; 102 for a type that is not sent.
int tran_logb(MTR_CXT_VAR& var, const TRAN_LOGF_QUE_DATA& record);

}  // namespace varn
