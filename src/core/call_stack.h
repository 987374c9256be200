// The open calls of a thread, as its shared entry holds them.
#pragma once

#include "layout/ptrc_hash_tbl.h"
#include "util/shared_word.h"

namespace varn {

inline constexpr char kBizCall = 'C';
inline constexpr char kDbioCall = 'B';

// Null when none is open, or the number of open calls cannot be.
inline CallEntry* innermost_call(PTRC_HASH_ENT& entry) {
  const int call_top = load(entry.call_top);
  return call_top < 1 || call_top > kMaxCallDepth ? nullptr : &entry.call_stack[call_top - 1];
}

}  // namespace varn
