#include "support/sound_table.h"

#include <utility>
#include <vector>

namespace varn::test {

testing::AssertionResult is_sound(const PTRC_HASH_TBL& table, std::uint32_t deaths) {
  enum Place : char { kNowhere, kFree, kUsed };
  std::vector<Place> places(kTableEntries, kNowhere);
  const auto failed = [](const char* what, std::uint32_t n) {
    return testing::AssertionFailure() << what << ", entry or count " << n;
  };
  for (const auto& [stack, place] :
       {std::pair(&table.free_stack, kFree), std::pair(&table.used_stack, kUsed)}) {
    if (stack->count > TableStack::capacity) return failed("a stack's count", stack->count);
    for (std::uint32_t i = 0; i < stack->count; ++i) {
      const std::uint32_t n = stack->numbers[i];
      if (n >= kTableEntries) return failed("no entry's number", n);
      if (places[n] != kNowhere) return failed("in two places", n);
      places[n] = place;
    }
  }
  std::vector<bool> linked(kTableEntries);
  for (std::uint32_t chain = 0; chain < kTableChains; ++chain) {
    std::int32_t last = kNoEntry;
    for (std::int32_t at = table.heads[chain]; at != kNoEntry; at = table.entries[at].next) {
      const auto n = static_cast<std::uint32_t>(at);
      if (n >= kTableEntries) return failed("a link to no entry", n);
      if (linked[n]) return failed("in two chains, or a loop", n);
      if (places[n] == kFree) return failed("linked and free", n);
      const PTRC_HASH_ENT& entry = table.entries[n];
      if (entry.prev != last || entry.bucket != chain || entry.pidx != at ||
          entry.ent_status == 0 || entry.ent_tid > INT32_MAX)
        return failed("linked before it was filled", n);
      linked[n] = true;
      last = at;
    }
  }
  const std::uint32_t kept = table.free_stack.count + table.used_stack.count;
  if (kept + deaths < kTableEntries) return failed("more lost than processes died", kept);
  for (std::uint32_t n = 0; n < kTableEntries; ++n)
    if (places[n] == kUsed && !linked[n]) return failed("used but in no chain", n);
  return testing::AssertionSuccess();
}

}  // namespace varn::test
