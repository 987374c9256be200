// The whole-telegram log up to the ring: the threads that log telegrams build the records of its
// file, and the ring hands them to the writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "layout/que_info.h"

namespace varn {

// What the ring carries: one record, a heap block that passes to the consumer.
struct TongItem {
  std::int64_t size;
  char* record;
};

// Where a start found the log to be. The texts are copied, the segment stays attached.
struct TongPlace {
  const TRAN_LOGF_QUE_INFO* que_info;
  const char* host_name;
  const char* dir;
  const char* name;  // of the container or the process, as the file's name shows it
  std::int32_t pid;
  std::int64_t budget;  // bytes that queued records may take
};

struct TongCounts {
  std::int64_t written;
  std::int64_t dropped;
};

// ---- Start and stop. No writer runs, and main_lock is held. ----

// Sets the ring up anew: false when that fails. From here on telegrams are queued.
bool open_tong(const TongPlace& place);

// Telegrams are dropped from here on. The writer may still run.
void refuse_telegrams();

// Drops what is queued.
void drop_queued_telegrams();

// What became of the telegrams since the last start. Those still queued count as dropped.
TongCounts tong_counts();

// After a fork, in the child: the lock is a thread's of the parent. What the parent had queued is
// freed by the child's own start; the fork may have come from anywhere, from inside free() too.
void forget_tong();

// ---- Threads that log telegrams, inside a call of a started agent ----

// Whether the collector wants whole telegrams.
bool is_tong_logged();

// Queues a telegram of `len` bytes (negative: up to its zero byte) when whole telegrams are logged:
// 0, or TRAN_RC_SHORT_TELEGRAM. What cannot be queued is dropped and counted. `kind`: ApiType.
int save_tong_log4c(int tid, const char* telegram, int len, int kind);

// Whether a telegram exceeds what the log's records can say; counted and told then.
bool is_telegram_too_long(std::int64_t tid, std::size_t n);

// Queues a telegram of any length that is not too long. Thread and `call` are for the message when
// there is no room.
void queue_telegram(std::int64_t tid, const char* call, const char* telegram, std::size_t n,
                    int kind);

// 'S' for the API types that start a service, 'F' for those that end one, 'U' for others.
char get_sf_flag(int kind);

// ---- The writer ----

const TongPlace& tong_place();

// Of a new file, failures are counted from the first.
void reset_nfailcount();

// Gives a record's memory back, and notes whether it was written.
void release_record(const TongItem& item, bool is_written);

}  // namespace varn
