#include <cstring>
#include <limits>
#include <memory>
#include <string>
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
  const struct {
    std::string key;
    std::uint32_t code;
  } cases[] = {
      {"", 0},
      {"a", 0xca2e9442},
      {"\xff", 0xc7b20f1d},  // bytes count as unsigned
      {"The quick brown fox jumps over the lazy dog", 0x519e91f5},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(get_hash_code(c.key.data(), c.key.size()), c.code) << c.key;
    EXPECT_EQ(get_hidx(c.key.data(), c.key.size(), 0xFFF), c.code & 0xFFF) << c.key;
  }
}

template <typename Stack>
void check_stack(std::int32_t (*push)(Stack*, std::uint32_t), std::int32_t (*pop)(Stack*)) {
  constexpr std::uint32_t kFull = Stack::capacity;
  const auto stack = std::make_unique<Stack>();
  EXPECT_EQ(pop(stack.get()), -1) << "empty";
  EXPECT_EQ(push(stack.get(), 7), 1);
  EXPECT_EQ(push(stack.get(), 9), 2);
  EXPECT_EQ(pop(stack.get()), 9);
  EXPECT_EQ(pop(stack.get()), 7);
  stack->count = kFull - 1;
  EXPECT_EQ(push(stack.get(), 5), static_cast<std::int32_t>(kFull));
  EXPECT_EQ(push(stack.get(), 6), -1) << "full";
  EXPECT_EQ(pop(stack.get()), 5);
  for (const std::uint32_t damaged : {kFull + 1, 0xFFFFFFFFU}) {
    stack->count = damaged;
    EXPECT_EQ(push(stack.get(), 1), -1) << damaged;
    EXPECT_EQ(pop(stack.get()), -1) << damaged;
    EXPECT_EQ(stack->count, damaged);
  }
}

TEST(Stacks, PushAndPopWithinTheirBounds) {
  check_stack<TableStack>(svc_hash_push, svc_hash_pop);
  check_stack<TableStack>(ptrc_hash_push, ptrc_hash_pop);
  check_stack<JcacheStack>(jcache_hash_push, jcache_hash_pop);
}

TEST(Stacks, ANumberIsTakenOutWhereverItStands) {
  const auto stack = std::make_unique<TableStack>();
  EXPECT_EQ(svc_hash_popv(stack.get(), 1), -1) << "empty";
  for (const std::uint32_t n : {1U, 2U, 3U, 4U}) svc_hash_push(stack.get(), n);
  EXPECT_EQ(svc_hash_popv(stack.get(), 2), 2);
  const auto numbers = [&](std::size_t n) {
    return std::vector<std::int32_t>(stack->numbers, stack->numbers + n);
  };
  EXPECT_EQ(stack->count, 3U);
  EXPECT_EQ(numbers(4), (std::vector<std::int32_t>{1, 4, 3, -1}));
  EXPECT_EQ(svc_hash_popv(stack.get(), 3), 3) << "the top itself";
  EXPECT_EQ(numbers(3), (std::vector<std::int32_t>{1, 4, -1}));
  EXPECT_EQ(svc_hash_popv(stack.get(), 3), -1) << "no longer there";
  EXPECT_EQ(svc_hash_popv(stack.get(), -1), -1) << "not even where one was taken out";
  EXPECT_EQ(stack->count, 2U);
  stack->count = TableStack::capacity + 1;
  EXPECT_EQ(svc_hash_popv(stack.get(), 1), -1) << "damaged";
}

class ServiceTable : public testing::Test {
 protected:
  const SVC_HASH_ENT* find(std::string svc_id) {
    svc_id.resize(16, ' ');
    return get_svc_hash(collector_.svc_tbl(), svc_id.data());
  }
  std::int32_t& head_of(const SVC_HASH_ENT& entry) {
    return collector_.svc_tbl().heads[entry.bucket];
  }

  FakeCollector collector_;
};

TEST_F(ServiceTable, ANewTableHasAllItsEntriesFree) {
  SVC_HASH_TBL& table = collector_.svc_tbl();
  EXPECT_EQ(table.used, 0U);
  EXPECT_EQ(table.used_stack.count, 0U);
  EXPECT_EQ(table.free_stack.count, 10'000U);
  EXPECT_EQ(table.free_stack.numbers[0], 0U);
  EXPECT_EQ(table.free_stack.numbers[9'999], 9'999U);
  for (const std::int32_t head : table.heads) ASSERT_EQ(head, -1);
}

TEST_F(ServiceTable, FindsAServiceAmongTheFirstTenOfItsChain) {
  for (const int behind : {0, 1, 9, 10}) {
    const std::string id = "SVC" + std::to_string(behind);
    const SVC_HASH_ENT& entry = collector_.add_service(id, {}, behind);
    EXPECT_EQ(find(id), behind < 10 ? &entry : nullptr) << behind;
  }
  EXPECT_EQ(find("OTHER"), nullptr);
  EXPECT_EQ(find("SVC"), nullptr) << "all sixteen characters count";
  collector_.svc_tbl().used = 0;
  EXPECT_EQ(find("SVC0"), nullptr) << "an empty table finds nothing";
}

TEST_F(ServiceTable, DamagedLinksEndTheSearch) {
  SVC_HASH_ENT& first = collector_.add_service("SVC", {}, 1);
  SVC_HASH_ENT& filler = collector_.svc_tbl().entries[first.prev];
  for (const std::int32_t link : {-1, -2, 10'000, std::numeric_limits<std::int32_t>::max(),
                                  std::numeric_limits<std::int32_t>::min(), filler.index}) {
    filler.next = link;  // the last one: a loop
    EXPECT_EQ(find("SVC"), nullptr) << link;
    const std::int32_t head = head_of(first);
    if (link != filler.index) head_of(first) = link;
    EXPECT_EQ(find("SVC"), nullptr) << link;
    head_of(first) = head;
  }
}

}  // namespace
}  // namespace varn::test
