#include "tong/deffered_que.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace varn {
namespace {

constexpr std::uint32_t kMask = kQueItems - 1;

// Each side's index on a cache line of its own. Empty when they are equal; full when only the item
// at `front` is free, which is the one that the consumer may still be reading.
struct QuePool {
  alignas(64) std::atomic<std::uint32_t> front;  // item taken last
  alignas(64) std::atomic<std::uint32_t> rear;   // item put last
  alignas(64) QueItem items[kQueItems];
};
constinit QuePool que_pool = {};

}  // namespace

int create_deffered_que(int n) {
  if (n != 0) return 0;
  que_pool.front.store(0, std::memory_order_relaxed);
  que_pool.rear.store(0, std::memory_order_relaxed);
  return 1;
}

int put_deffered_que(const void* payload, std::size_t size, std::uint32_t kind) {
  const std::uint32_t rear = (que_pool.rear.load(std::memory_order_relaxed) + 1) & kMask;
  // Pairs with the store in get_deffered_que: the consumer has done with what is overwritten.
  if (rear == que_pool.front.load(std::memory_order_acquire)) return 0;
  QueItem& item = que_pool.items[rear];
  item.kind = kind;
  std::memcpy(item.payload, payload, std::min(size, kQuePayload));
  // Pairs with the load in get_deffered_que: the item is whole.
  que_pool.rear.store(rear, std::memory_order_release);
  return 1;
}

const QueItem* get_deffered_que() {
  const std::uint32_t front = que_pool.front.load(std::memory_order_relaxed);
  // Pairs with the store in put_deffered_que: the item is whole.
  if (front == que_pool.rear.load(std::memory_order_acquire)) return nullptr;
  const std::uint32_t next = (front + 1) & kMask;
  // Pairs with the load in put_deffered_que: the consumer has done with the item before this one.
  que_pool.front.store(next, std::memory_order_release);
  return &que_pool.items[next];
}

std::uint32_t get_deffered_queueing() {
  return (que_pool.rear.load(std::memory_order_acquire) -
          que_pool.front.load(std::memory_order_acquire)) &
         kMask;
}

bool is_full() { return get_deffered_queueing() == kMask; }

bool is_empty() { return get_deffered_queueing() == 0; }

}  // namespace varn
