#include "hash/get_ptrc_hash.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <tuple>
#include <utility>

#include "hash/hash.h"
#include "support/support.h"

namespace varn::test {
namespace {

constexpr std::int32_t kProcess = 4711;

std::uint32_t chain_of(std::uint64_t tid) {
  char key[32];
  std::snprintf(key, sizeof key, "%08d%015lu", kProcess, tid);
  return get_hidx(key, 23, kTableChains - 1);
}

class ProcessThreadTable : public testing::Test {
 protected:
  EntryResult get(std::uint64_t tid, PTRC_HASH_ENT** out) {
    const EntryOwner owner = {kProcess,    tid,    5,    2, "a process name of thirty characters",
                              "container", "user", "sid"};
    return get_ptrc_hash(table_, owner, out);
  }
  PTRC_HASH_ENT& get(std::uint64_t tid) {
    PTRC_HASH_ENT* entry = nullptr;
    EXPECT_EQ(get(tid, &entry), EntryResult::kFound);
    return *entry;
  }

  FakeCollector collector_;
  PTRC_HASH_TBL& table_ = collector_.ptrc_tbl();
};

TEST_F(ProcessThreadTable, ANewEntrySaysWhoseItIsAndNothingOfThePast) {
  PTRC_HASH_ENT& entry = table_.entries[9'999];
  std::memset(static_cast<void*>(&entry), 0x5A, sizeof entry);
  entry.ent_status = kEntCleared;
  const time_t before = time(nullptr);
  ASSERT_EQ(&get(123), &entry);
  for (const auto& [text, expected] : {std::pair(entry.pid_txt, "00004711"),
                                       {entry.tid_txt, "000000000000123"},
                                       {entry.idx_txt, "00005"},
                                       {entry.ent_proc_nm, "a process name of thirty chara"},
                                       {entry.ent_cont_nm, "container"},
                                       {entry.db_user, "user"},
                                       {entry.db_sid, "sid"},
                                       {entry.main_gid, ""}})
    EXPECT_STREQ(text, expected);
  EXPECT_EQ(entry.ent_pid, kProcess);
  EXPECT_EQ(entry.ent_tid, 123U);
  EXPECT_EQ(entry.tran_state, 'd');
  EXPECT_EQ(entry.ent_status, kEntInUse);
  EXPECT_EQ(entry.created, '1');
  EXPECT_GE(entry.svc_mark_time, before);
  EXPECT_EQ(entry.call_stack[50].lvl_dbio_us, 0);
  EXPECT_EQ(entry.fetch_time, 0) << "the last field";
}

TEST_F(ProcessThreadTable, EntriesAreHandedOutFromTheLastLinkedAndFoundAgain) {
  PTRC_HASH_ENT& first = get(1);
  table_.heads[chain_of(2)] = first.pidx;
  PTRC_HASH_ENT& second = get(2);
  EXPECT_EQ(&get(1), &first);
  EXPECT_EQ(&get(2), &second);
  EXPECT_EQ(table_.used, 2U);
  EXPECT_EQ(table_.used_stack.count, 2U);
  EXPECT_EQ(table_.used_stack.numbers[1], 9'998U);
  EXPECT_EQ(table_.free_stack.count, 9'998U);
  EXPECT_EQ(table_.heads[chain_of(1)], 9'999);
  EXPECT_EQ(std::tuple(first.pidx, first.prev, first.next), std::tuple(9'999, -1, 9'998));
  EXPECT_EQ(std::tuple(second.pidx, second.prev, second.next), std::tuple(9'998, 9'999, -1));
  EXPECT_EQ(second.bucket, chain_of(2));

  for (const EntStatus status : {kEntCleared, kEntReleaseRequested}) {
    first.ent_status = status;
    PTRC_HASH_ENT& fresh = get(1);
    EXPECT_NE(&fresh, &first) << "it stays as it is";
    EXPECT_EQ(&get(1), &fresh);
    EXPECT_EQ(&get(2), &second);
    EXPECT_EQ(first.ent_status, status);
    fresh.ent_status = kEntCleared;
  }
}

TEST_F(ProcessThreadTable, DamageIsToldNotFollowed) {
  PTRC_HASH_ENT& first = get(1);
  table_.heads[chain_of(2)] = first.pidx;
  PTRC_HASH_ENT* entry = nullptr;
  for (const std::int32_t wild : {-2, 10'000, INT32_MAX, INT32_MIN}) {
    SCOPED_TRACE(wild);
    first.next = wild;
    EXPECT_EQ(get(2, &entry), EntryResult::kDamaged);
    first.next = kNoEntry;
    table_.heads[chain_of(2)] = wild;
    EXPECT_EQ(get(2, &entry), EntryResult::kDamaged);
    table_.heads[chain_of(2)] = first.pidx;
    table_.free_stack.numbers[table_.free_stack.count - 1] = static_cast<std::uint32_t>(wild);
    EXPECT_NE(get(2, &entry), EntryResult::kFound);
  }
  table_.free_stack.count = 5;
  table_.free_stack.numbers[4] = static_cast<std::uint32_t>(first.pidx);
  EXPECT_NE(get(2, &entry), EntryResult::kFound) << "an entry in use was on the free stack";
  EXPECT_EQ(first.ent_tid, 1U);

  for (std::int32_t n = 0; n < kTableEntries; ++n) table_.entries[n].next = n + 1;
  table_.entries[kTableEntries - 1].next = kNoEntry;
  table_.heads[chain_of(100)] = 0;
  table_.free_stack.count = 0;
  EXPECT_EQ(get(100, &entry), EntryResult::kFull) << "the whole table in one chain";
  table_.entries[kTableEntries - 1].next = 17;
  EXPECT_EQ(get(100, &entry), EntryResult::kOverlong) << "a loop";
  EXPECT_EQ(entry, nullptr);
}

}  // namespace
}  // namespace varn::test
