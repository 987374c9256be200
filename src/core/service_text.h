// GIDs and service ids as log lines and messages show them.
#pragma once

#include <cstddef>
#include <string_view>

#include "core/record.h"
#include "layout/record.h"
#include "util/message.h"

namespace varn {

inline constexpr std::size_t kComparedGid = 30;  // characters of a GID that tell transactions apart
inline constexpr std::size_t kPrintedSvcId = 16;

// A caller's text: its given length, or up to `most` characters to its zero byte.
inline std::string_view shown(Text text, std::size_t width, std::size_t most) {
  if (!text.given()) return "null";
  return printable(text, text.len < 0 ? most : width);
}
inline std::string_view shown_gid(Text gid) { return shown(gid, kGid.width, kComparedGid); }
inline std::string_view shown_svc_id(Text svc_id) {
  return shown(svc_id, kSvcId.width, kPrintedSvcId);
}

// A field of a table, up to its zero byte if it has one.
template <std::size_t kSize>
std::string_view whole(const char (&field)[kSize]) {
  return printable(Text::of(field), kSize);
}

}  // namespace varn

// For "%.*s".
#define VARN_SV(view) static_cast<int>((view).size()), (view).data()
