// The ring of items between the threads that log telegrams and the one that writes them to disk:
// static memory of the process, of which nothing is touched before it is used.
//
// One producer at a time (it holds tong_lock), one consumer (the writer thread, without a lock).
#pragma once

#include <cstddef>
#include <cstdint>

namespace varn {

inline constexpr std::uint32_t kQueItems = 1U << 19;  // one of them is always free
inline constexpr std::size_t kQuePayload = 16;

inline constexpr std::uint32_t kTongItem = 1;  // the only kind there is: a TongItem

struct QueItem {
  std::uint32_t kind;
  alignas(8) char payload[kQuePayload];
};

// Empties queue `n`, of which there is number 0 alone: 1, or 0 for another. With neither a producer
// nor the consumer.
int create_deffered_que(int n);

// Producer. Copies `size` bytes of payload, at most kQuePayload: 1, or 0 when the queue is full.
int put_deffered_que(const void* payload, std::size_t size, std::uint32_t kind);

// Consumer. The next item, or null when the queue is empty. The item is the consumer's until it
// asks for the next one.
const QueItem* get_deffered_que();

// Items waiting. Beside a running producer or consumer, as of a moment ago.
std::uint32_t get_deffered_queueing();
bool is_full();
bool is_empty();

}  // namespace varn
