#include "hash/get_ptrc_hash.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
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
  ProcessThreadTable() {
    // Two threads of one chain.
    std::map<std::uint32_t, std::uint64_t> seen;
    while (seen.emplace(chain_of(two_), two_).second) ++two_;
    one_ = seen.at(chain_of(two_));
  }
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
  std::uint64_t one_, two_ = 1;
};

TEST_F(ProcessThreadTable, ANewEntrySaysWhoseItIsAndNothingOfThePast) {
  PTRC_HASH_ENT& entry = table_.entries[9'999];
  std::memset(static_cast<void*>(&entry), 0x5A, sizeof entry);
  entry.ent_status = kEntCleared;
  const time_t before = time(nullptr);
  ASSERT_EQ(&get(123), &entry);
  EXPECT_EQ(std::string(entry.pid_txt, 9), std::string("00004711\0", 9));
  EXPECT_EQ(std::string(entry.tid_txt, 16), std::string("000000000000123\0", 16));
  EXPECT_EQ(std::string(entry.idx_txt, 6), std::string("00005\0", 6));
  EXPECT_EQ(entry.ent_pid, kProcess);
  EXPECT_EQ(entry.ent_tid, 123U);
  EXPECT_STREQ(entry.ent_proc_nm, "a process name of thirty chara");
  EXPECT_STREQ(entry.ent_cont_nm, "container");
  EXPECT_STREQ(entry.db_user, "user");
  EXPECT_STREQ(entry.db_sid, "sid");
  EXPECT_EQ(entry.tran_state, 'd');
  EXPECT_EQ(entry.ent_status, kEntInUse);
  EXPECT_EQ(entry.created, '1');
  EXPECT_GE(entry.svc_mark_time, before);
  EXPECT_EQ(entry.bucket, chain_of(123));
  EXPECT_EQ(std::string(entry.main_gid, 30), std::string(30, '\0'));
  EXPECT_EQ(entry.call_stack[50].lvl_dbio_us, 0);
  EXPECT_EQ(entry.sql_ent[4].stmt_exec_cnt, 0U);
  EXPECT_EQ(entry.fetch_time, 0);
}

TEST_F(ProcessThreadTable, EntriesAreHandedOutFromTheLastLinkedAndFoundAgain) {
  const PTRC_HASH_ENT& first = get(one_);
  const PTRC_HASH_ENT& second = get(two_);
  EXPECT_EQ(std::make_pair(first.pidx, second.pidx), std::make_pair(9'999, 9'998));
  EXPECT_EQ(&get(one_), &first);
  EXPECT_EQ(&get(two_), &second);
  EXPECT_EQ(table_.used, 2U);
  EXPECT_EQ(table_.used_stack.count, 2U);
  EXPECT_EQ(table_.used_stack.numbers[1], 9'998U);
  EXPECT_EQ(table_.free_stack.count, 9'998U);
  EXPECT_EQ(table_.heads[chain_of(one_)], first.pidx);
  EXPECT_EQ(std::make_pair(first.prev, first.next), std::make_pair(-1, second.pidx));
  EXPECT_EQ(std::make_pair(second.prev, second.next), std::make_pair(first.pidx, -1));
}

TEST_F(ProcessThreadTable, AClearedEntryStaysAndItsThreadGetsANewOne) {
  PTRC_HASH_ENT& old = get(100);
  for (const EntStatus status : {kEntCleared, kEntReleaseRequested}) {
    old.ent_status = status;
    PTRC_HASH_ENT& fresh = get(100);
    EXPECT_NE(&fresh, &old);
    EXPECT_EQ(&get(100), &fresh);
    EXPECT_EQ(table_.heads[chain_of(100)], old.pidx);
    EXPECT_EQ(old.ent_status, status);
    fresh.ent_status = kEntCleared;
  }
}

TEST_F(ProcessThreadTable, OnlyAChainLongerThanTheTableIsOverlong) {
  for (std::int32_t n = 0; n < kTableEntries; ++n) table_.entries[n].next = n + 1;
  table_.entries[kTableEntries - 1].next = kNoEntry;
  table_.heads[chain_of(100)] = 0;
  table_.free_stack.count = 0;
  PTRC_HASH_ENT* entry = nullptr;
  EXPECT_EQ(get(100, &entry), EntryResult::kFull) << "the whole table in one chain";
  table_.entries[kTableEntries - 1].next = 17;
  EXPECT_EQ(get(100, &entry), EntryResult::kOverlong) << "a loop";
  EXPECT_EQ(entry, nullptr);
}

TEST_F(ProcessThreadTable, DamageIsToldNotFollowed) {
  PTRC_HASH_ENT& first = get(one_);
  PTRC_HASH_ENT* entry = nullptr;
  for (const std::int32_t wild : {-2, 10'000, INT32_MAX, INT32_MIN}) {
    SCOPED_TRACE(wild);
    first.next = wild;
    EXPECT_EQ(get(two_, &entry), EntryResult::kDamaged);
    first.next = kNoEntry;
    table_.heads[chain_of(one_)] = wild;
    EXPECT_EQ(get(two_, &entry), EntryResult::kDamaged);
    table_.heads[chain_of(one_)] = first.pidx;
    table_.free_stack.numbers[table_.free_stack.count - 1] = static_cast<std::uint32_t>(wild);
    EXPECT_NE(get(two_, &entry), EntryResult::kFound);
  }
  table_.free_stack.count = 5;
  table_.free_stack.numbers[4] = static_cast<std::uint32_t>(first.pidx);
  EXPECT_NE(get(two_, &entry), EntryResult::kFound) << "an entry in use was on the free stack";
  EXPECT_EQ(first.ent_tid, one_);
  for (const std::uint32_t count : {10'001U, 0xFFFFFFFFU}) {
    table_.free_stack.count = count;
    EXPECT_NE(get(two_, &entry), EntryResult::kFound) << count;
  }
  EXPECT_EQ(entry, nullptr);
}

}  // namespace
}  // namespace varn::test
