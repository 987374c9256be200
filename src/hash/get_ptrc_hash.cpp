#include "hash/get_ptrc_hash.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <iterator>

#include "hash/hash.h"
#include "hash/ptrc_hash_stk.h"
#include "util/log_printf.h"
#include "util/shared_word.h"
#include "util/text.h"

namespace varn {
namespace {

// Process id, thread id and bucket as zero-filled digits; the first two choose the chain.
struct EntryKey {
  char pid[8];
  char tid[15];
  char bucket[5];
};
static_assert(sizeof(EntryKey) == 28);

EntryKey key_of(const EntryOwner& owner) {
  EntryKey key;
  put_digits(key.pid, sizeof key.pid, owner.pid);
  put_digits(key.tid, sizeof key.tid, static_cast<std::int64_t>(owner.tid));
  put_digits(key.bucket, sizeof key.bucket, owner.bucket);
  return key;
}

bool belongs_to(const PTRC_HASH_ENT& entry, const EntryKey& key) {
  return load(entry.ent_status) == kEntInUse &&
         std::memcmp(entry.pid_txt, key.pid, sizeof key.pid) == 0 &&
         std::memcmp(entry.tid_txt, key.tid, sizeof key.tid) == 0;
}

constexpr bool is_entry_number(std::int32_t n) { return n >= 0 && n < kTableEntries; }

void fill_entry(PTRC_HASH_ENT& entry, const EntryKey& key, const EntryOwner& owner) {
  constexpr std::size_t kZeroedFrom = offsetof(PTRC_HASH_ENT, main_gid);
  std::memset(reinterpret_cast<char*>(&entry) + kZeroedFrom, 0, sizeof entry - kZeroedFrom);
  std::memcpy(entry.pid_txt, key.pid, sizeof key.pid);
  std::memcpy(entry.tid_txt, key.tid, sizeof key.tid);
  std::memcpy(entry.idx_txt, key.bucket, sizeof key.bucket);
  entry.ent_pid = owner.pid;
  entry.ent_tid = owner.tid;
  put_zero_ended(entry.ent_proc_nm, owner.proc_nm);
  put_zero_ended(entry.ent_cont_nm, owner.cont_nm);
  put_zero_ended(entry.db_user, owner.db_user);
  put_zero_ended(entry.db_sid, owner.db_sid);
  entry.tran_state = 'd';
  entry.created = '1';
  entry.svc_mark_time = time(nullptr);
  store_release(entry.ent_status, static_cast<std::uint8_t>(kEntInUse));
}

// An entry found in use was left by this process before its last stop, or by one with the same id
// that crashed: whatever calls were open then are not.
void close_calls(PTRC_HASH_ENT& entry) {
  store(entry.call_top, std::int8_t{0});
  store(entry.call_last_top, std::int8_t{0});
  store(entry.call_nest, 0);
  store(entry.call_cnt, 0);
  store(entry.dbio_elapsed_total, std::int64_t{0});
  store(entry.sql_cnt, 0);
  store(entry.sqlcode, kNoSqlcode);
}

}  // namespace

EntryResult get_ptrc_hash(PTRC_HASH_TBL& table, const EntryOwner& owner, PTRC_HASH_ENT** out) {
  const EntryKey key = key_of(owner);
  const std::uint32_t chain = get_hidx(key.pid, sizeof key.pid + sizeof key.tid, kTableChains - 1);

  std::int32_t last = kNoEntry;
  std::int32_t at = load(table.heads[chain]);
  for (int visited = 0; at != kNoEntry; ++visited) {
    if (!is_entry_number(at)) return EntryResult::kDamaged;
    if (visited == kTableEntries) return EntryResult::kOverlong;
    PTRC_HASH_ENT& entry = table.entries[at];
    if (belongs_to(entry, key)) {
      close_calls(entry);
      *out = &entry;
      return EntryResult::kFound;
    }
    last = at;
    at = load(entry.next);
  }

  const std::int32_t fresh = ptrc_hash_pop(&table.free_stack);
  if (fresh == -1) return EntryResult::kFull;
  if (!is_entry_number(fresh) || load(table.entries[fresh].ent_status) == kEntInUse)
    return EntryResult::kDamaged;

  PTRC_HASH_ENT& entry = table.entries[fresh];
  fill_entry(entry, key, owner);
  entry.pidx = fresh;
  entry.bucket = chain;
  entry.prev = last;
  entry.next = kNoEntry;
  store_release(last == kNoEntry ? table.heads[chain] : table.entries[last].next, fresh);

  ptrc_hash_push(&table.used_stack, static_cast<std::uint32_t>(fresh));
  const std::uint32_t used = add(table.used, 1U);
  log_printf(
      "(I) ptrc_hash pid-tid created.(pid : %d, tid : %lu, mtr_tid_idx : %d(%d threads), arr_idx : "
      "%d), used : %d(=%d)",
      owner.pid, owner.tid, owner.bucket, owner.bucket_threads + 1, fresh, static_cast<int>(used),
      static_cast<int>(load(table.used_stack.count)));
  *out = &entry;
  return EntryResult::kFound;
}

void init_ptrc_hash_tbl(PTRC_HASH_TBL& table) {
  log_printf("(I) initializing.. ptrc_hash_tbl.");
  table.used = 0;
  std::fill(std::begin(table.heads), std::end(table.heads), kNoEntry);
  table.free_stack.count = 0;
  table.used_stack.count = 0;
  for (std::uint32_t n = 0; n < kTableEntries; ++n) ptrc_hash_push(&table.free_stack, n);
}

}  // namespace varn
