#include "tong/deffered_que.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "support/support.h"

namespace varn::test {
namespace {

constexpr std::uint32_t kMostItems = 524'287;

struct Payload {
  std::uint64_t producer;
  std::uint64_t number;
};

struct DefferedQue : testing::Test {
  DefferedQue() { EXPECT_EQ(create_deffered_que(0), 1); }
};

bool put(Payload payload) { return put_deffered_que(&payload, sizeof payload, kTongItem) == 1; }

Payload payload_of(const QueItem* item) {
  Payload payload = {~0UL, ~0UL};
  if (item != nullptr && item->kind == kTongItem)
    std::memcpy(&payload, item->payload, sizeof payload);
  return payload;
}

TEST_F(DefferedQue, IsNewEmptyAndGivesBackWhatWasPut) {
  EXPECT_EQ(create_deffered_que(1), 0) << "there is one queue";
  EXPECT_TRUE(is_empty());
  EXPECT_EQ(get_deffered_que(), nullptr);
  ASSERT_TRUE(put({1, 2}));
  EXPECT_EQ(get_deffered_queueing(), 1U);
  const QueItem* const first = get_deffered_que();
  EXPECT_EQ(payload_of(first).number, 2U);
  EXPECT_TRUE(is_empty());
  EXPECT_EQ(get_deffered_que(), nullptr);
  put({1, 3});
  EXPECT_EQ(get_deffered_que(), first + 1);
  create_deffered_que(0);
  put({1, 4});
  EXPECT_EQ(get_deffered_que(), first) << "the first item goes to index 1";
}

TEST_F(DefferedQue, Takes524287ItemsAndCountsThemAcrossTheEndOfThePool) {
  std::uint64_t put_last = 0, taken_last = 0;
  for (const std::uint32_t take : {1U, 7U, kMostItems, 300'000U, kMostItems}) {
    while (put({0, put_last + 1})) ++put_last;
    ASSERT_EQ(put_last - taken_last, kMostItems);
    EXPECT_TRUE(is_full());
    EXPECT_EQ(get_deffered_queueing(), kMostItems);
    for (std::uint32_t n = 0; n < take; ++n)
      ASSERT_EQ(payload_of(get_deffered_que()).number, ++taken_last);
    EXPECT_EQ(get_deffered_queueing(), kMostItems - take);
  }
  EXPECT_TRUE(is_empty());
}

TEST_F(DefferedQue, TheItemTakenLastIsNotOverwritten) {
  ASSERT_TRUE(put({0, 0}));
  const QueItem* const taken = get_deffered_que();
  for (std::uint64_t n = 1; put({0, n});) ++n;
  EXPECT_EQ(payload_of(taken).number, 0U);
}

TEST_F(DefferedQue, HandsItemsOfManyProducersOverInTheirOrderAndLosesNone) {
  constexpr std::uint64_t kProducers = 4;
  constexpr std::uint64_t kEach = 300'000;  // more than the pool has
  std::mutex lock;
  std::atomic<bool> failed{false};
  std::vector<std::thread> producers;
  for (std::uint64_t p = 0; p < kProducers; ++p)
    producers.emplace_back([&, p] {
      for (std::uint64_t n = 0; n < kEach && !failed;) {
        const std::lock_guard guard(lock);
        for (int i = 0; i < 100 && n < kEach && put({p, n}); ++i) ++n;
      }
    });
  std::uint64_t taken[kProducers] = {};
  std::uint64_t all = 0;
  bool in_order = true;
  EXPECT_TRUE(wait_until([&] {
    while (const QueItem* const item = get_deffered_que()) {
      const Payload payload = payload_of(item);
      in_order =
          in_order && payload.producer < kProducers && payload.number == taken[payload.producer]++;
      ++all;
    }
    return all == kProducers * kEach || !in_order;
  }));
  EXPECT_TRUE(in_order);
  failed = all != kProducers * kEach;
  for (std::thread& producer : producers) producer.join();
}

}  // namespace
}  // namespace varn::test
