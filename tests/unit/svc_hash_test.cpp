#include <string>
#include <tuple>
#include <vector>

#include "hash/get_svc_hash.h"
#include "hash/hash.h"
#include "hash/jcache_hash_stk.h"
#include "hash/ptrc_hash_stk.h"
#include "hash/svc_hash_stk.h"
#include "support/support.h"

namespace varn::test {
namespace {

TEST(HashCode, KnownValues) {
  EXPECT_EQ(get_hash_code("", 0), 0U);
  EXPECT_EQ(get_hash_code("a", 1), 0xca2e9442);
  EXPECT_EQ(get_hash_code("\xff", 1), 0xc7b20f1d) << "bytes count as unsigned";
  EXPECT_EQ(get_hidx("The quick brown fox jumps over the lazy dog", 43, 0xFFFF), 0x91f5U);
}

template <typename Stack>
void check_stack(std::int32_t (*push)(Stack*, std::uint32_t), std::int32_t (*pop)(Stack*)) {
  constexpr std::uint32_t kFull = Stack::capacity;
  Stack stack = {};
  EXPECT_EQ(pop(&stack), -1) << "empty";
  EXPECT_EQ(push(&stack, 7), 1);
  EXPECT_EQ(push(&stack, 9), 2);
  EXPECT_EQ(pop(&stack), 9);
  EXPECT_EQ(pop(&stack), 7);
  stack.count = kFull - 1;
  EXPECT_EQ(push(&stack, 5), static_cast<std::int32_t>(kFull));
  for (const std::uint32_t full_or_damaged : {kFull, kFull + 1, 0xFFFFFFFFU}) {
    stack.count = full_or_damaged;
    EXPECT_EQ(push(&stack, 6), -1) << full_or_damaged;
    EXPECT_EQ(pop(&stack), full_or_damaged == kFull ? 5 : -1) << full_or_damaged;
  }
}

TEST(Stacks, PushAndPopWithinTheirBounds) {
  check_stack<TableStack>(svc_hash_push, svc_hash_pop);
  check_stack<TableStack>(ptrc_hash_push, ptrc_hash_pop);
  check_stack<JcacheStack>(jcache_hash_push, jcache_hash_pop);
}

TEST(Stacks, ANumberIsTakenOutWhereverItStands) {
  TableStack stack = {};
  EXPECT_EQ(svc_hash_popv(&stack, 1), -1) << "empty";
  for (const std::uint32_t n : {1U, 2U, 3U, 4U}) svc_hash_push(&stack, n);
  for (const auto& [number, popped, left] : {std::tuple{2, 2, std::vector{1, 4, 3, -1}},
                                             {3, 3, {1, 4, -1, -1}},
                                             {3, -1, {1, 4, -1, -1}},
                                             {-1, -1, {1, 4, -1, -1}}}) {
    EXPECT_EQ(svc_hash_popv(&stack, number), popped);
    EXPECT_EQ(std::vector<std::int32_t>(stack.numbers, stack.numbers + 4), left);
  }
  EXPECT_EQ(stack.count, 2U);
  stack.count = TableStack::capacity + 1;
  EXPECT_EQ(svc_hash_popv(&stack, 1), -1) << "damaged";
}

class ServiceTable : public testing::Test {
 protected:
  const SVC_HASH_ENT* find(std::string svc_id) {
    svc_id.resize(16, ' ');
    return get_svc_hash(table_, svc_id.data());
  }

  FakeCollector collector_;
  SVC_HASH_TBL& table_ = collector_.svc_tbl();
};

TEST_F(ServiceTable, FindsAServiceAmongTheFirstTenOfItsChain) {
  for (const int behind : {0, 1, 9, 10}) {
    const std::string id = "SVC" + std::to_string(behind);
    const SVC_HASH_ENT& entry = collector_.add_service(id, {}, behind);
    EXPECT_EQ(find(id), behind < 10 ? &entry : nullptr) << behind;
  }
  EXPECT_EQ(find("SVC"), nullptr) << "all sixteen characters count";
  table_.used = 0;
  EXPECT_EQ(find("SVC0"), nullptr) << "an empty table finds nothing";
}

TEST_F(ServiceTable, DamagedLinksEndTheSearch) {
  const SVC_HASH_ENT& sought = collector_.add_service("SVC", {}, 1);
  SVC_HASH_ENT& first = table_.entries[sought.prev];
  for (const std::int32_t link : {first.index, -1, -2, 10'000, INT32_MAX, INT32_MIN}) {
    first.next = link;  // the first one: a loop
    EXPECT_EQ(find("SVC"), nullptr) << link;
    table_.heads[sought.bucket] = link;
    EXPECT_EQ(find("SVC"), nullptr) << link;
    table_.heads[sought.bucket] = first.index;
  }
}

}  // namespace
}  // namespace varn::test
