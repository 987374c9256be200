#include "collector/entries.h"

#include <sys/sem.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <unordered_set>

#include "hash/index_stack.h"
#include "util/sem.h"
#include "util/shared_word.h"

namespace varn {
namespace {

constexpr int kLockMs = 100;

using Pids = std::unordered_set<std::int32_t>;

bool is_entry_number(std::int32_t n) { return n >= 0 && n < kTableEntries; }

// None where the count is damaged.
std::uint32_t count_used(const PTRC_HASH_TBL& table) {
  const std::uint32_t count = load(table.used_stack.count);
  return count <= TableStack::capacity ? count : 0;
}

bool exists(std::int32_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH); }

// Owners of entries in use that are gone, looked for without the semaphore, since new threads wait
// for that.
Pids gone_owners(const PTRC_HASH_TBL& table, bool& any_given_up) {
  Pids seen;
  Pids gone;
  for (std::uint32_t i = 0; i < count_used(table); ++i) {
    const auto n = static_cast<std::int32_t>(load(table.used_stack.numbers[i]));
    if (!is_entry_number(n)) continue;
    any_given_up = any_given_up || load(table.entries[n].ent_status) == kEntCleared;
    const std::int32_t pid = load(table.entries[n].ent_pid);
    if (seen.insert(pid).second && !exists(pid)) gone.insert(pid);
  }
  return gone;
}

// One that is on no chain and free already has a status of 0, wherever a damaged stack names it.
bool is_left(const PTRC_HASH_ENT& entry, const Pids& gone) {
  const std::uint8_t status = load(entry.ent_status);
  if (status != kEntInUse && status != kEntReleaseRequested) return status == kEntCleared;
  const std::int32_t pid = load(entry.ent_pid);
  return gone.contains(pid) && !exists(pid);  // its number may be another's by now
}

// False in a damaged chain, which is left as it is. An entry that is in none is unlinked.
bool unlink(PTRC_HASH_TBL& table, std::int32_t n) {
  const std::uint32_t chain = load(table.entries[n].bucket);
  if (chain >= kTableChains) return false;
  std::int32_t before = kNoEntry;
  std::int32_t at = load(table.heads[chain]);
  for (int visited = 0; at != kNoEntry && at != n; ++visited) {
    if (!is_entry_number(at) || visited == kTableEntries) return false;
    before = at;
    at = load(table.entries[at].next);
  }
  if (at == kNoEntry) return true;
  const std::int32_t after = load(table.entries[n].next);
  if (after != kNoEntry && !is_entry_number(after)) return false;
  store_release(before == kNoEntry ? table.heads[chain] : table.entries[before].next, after);
  if (after != kNoEntry) store(table.entries[after].prev, before);
  return true;
}

// In an order in which a death in between loses a number at most, and gives none out twice.
void move_to_free(PTRC_HASH_TBL& table, std::uint32_t place, std::int32_t n) {
  store(table.entries[n].ent_status, std::uint8_t{0});
  const std::uint32_t last = count_used(table) - 1;
  store(table.used_stack.numbers[place], load(table.used_stack.numbers[last]));
  store(table.used_stack.count, last);
  stack_push(table.free_stack, static_cast<std::uint32_t>(n));
  if (const std::uint32_t used = load(table.used); used > 0) store(table.used, used - 1);
}

}  // namespace

int take_entries_back(PTRC_HASH_TBL& table, int semid) {
  bool any_given_up = false;
  const Pids gone = gone_owners(table, any_given_up);
  if (!any_given_up && gone.empty()) return 0;

  if (sem_lock_within(semid, 0, SEM_UNDO, kLockMs) != 0) return -1;
  int taken = 0;
  for (std::uint32_t place = count_used(table); place-- > 0;) {
    const auto n = static_cast<std::int32_t>(load(table.used_stack.numbers[place]));
    if (!is_entry_number(n)) continue;
    if (!is_left(table.entries[n], gone) || !unlink(table, n)) continue;
    move_to_free(table, place, n);
    ++taken;
  }
  sem_unlock(semid, 0, SEM_UNDO);
  return taken;
}

}  // namespace varn
