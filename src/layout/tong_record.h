// The whole-telegram log's record, as it is queued and as it stands in the file: this head, the
// telegram's bytes unchanged, and a newline.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "layout/pin.h"

namespace varn {

// All text, blank-padded, numbers zero-filled.
struct TongHead {
  char gid[30];      // what stands at the GID of a standard telegram
  char seconds[10];  // since 1970, when the record was built
  char usec[6];      // and microseconds
  char host_name[15];
  char direction;  // 'S' a request that starts a service, 'F' a response that ends one, 'U' else
  char length[6];  // of the telegram, bytes
};
VARN_PIN(TongHead, gid, 0);
VARN_PIN(TongHead, seconds, 30);
VARN_PIN(TongHead, usec, 40);
VARN_PIN(TongHead, host_name, 46);
VARN_PIN(TongHead, direction, 61);
VARN_PIN(TongHead, length, 62);
static_assert(sizeof(TongHead) == 68);
static_assert(std::is_standard_layout_v<TongHead>);

inline constexpr std::size_t kMostTongTelegram = 999'999;  // what six digits can say

constexpr std::size_t tong_record_size(std::size_t telegram) {
  return sizeof(TongHead) + telegram + 1;
}

}  // namespace varn
