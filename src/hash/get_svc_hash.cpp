#include "hash/get_svc_hash.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "hash/hash.h"
#include "hash/svc_hash_stk.h"
#include "util/shared_word.h"

namespace varn {

const SVC_HASH_ENT* get_svc_hash(const SVC_HASH_TBL& table, const char* svc_id) {
  constexpr int kMostCompared = 10;
  if (load(table.used) == 0) return nullptr;
  const std::uint32_t chain = get_hidx(svc_id, sizeof SVC_HASH_ENT::svc_id, kTableChains - 1);
  std::int32_t at = load(table.heads[chain]);
  for (int compared = 0; compared < kMostCompared; ++compared) {
    if (at < 0 || at >= kTableEntries) return nullptr;
    const SVC_HASH_ENT& entry = table.entries[at];
    if (std::memcmp(entry.svc_id, svc_id, sizeof entry.svc_id) == 0) return &entry;
    at = load(entry.next);
  }
  return nullptr;
}

void init_svc_hash_tbl(SVC_HASH_TBL& table) {
  table.used = 0;
  std::fill(std::begin(table.heads), std::end(table.heads), kNoEntry);
  table.free_stack.count = 0;
  table.used_stack.count = 0;
  for (std::uint32_t n = 0; n < kTableEntries; ++n) svc_hash_push(&table.free_stack, n);
}

}  // namespace varn
