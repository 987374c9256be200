// The fields of a telegram: of the standard layout as varn/sttl.h publishes them, and of the fixed
// one.
#pragma once

#include <cstddef>

#include "varn/sttl.h"

namespace varn {

// Named without the leading underscore: constants where the exported ones are data.
namespace sttl {
#define VARN_STTL_CONSTANT(name, offset, length) \
  inline constexpr tran_sttl_field k##name{offset, length};
TRAN_STTL_FIELD_LIST(VARN_STTL_CONSTANT)
#undef VARN_STTL_CONSTANT
}  // namespace sttl

// A telegram that is logged has at least its header.
inline constexpr std::size_t kLeastTelegram = 512;

}  // namespace varn
