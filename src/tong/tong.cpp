#include "tong/tong.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "layout/api_type.h"
#include "layout/sttl.h"
#include "layout/tong_record.h"
#include "tong/deffered_que.h"
#include "util/cancel_guard.h"
#include "util/clock.h"
#include "util/errno_guard.h"
#include "util/log_printf.h"
#include "util/message.h"
#include "util/shared_word.h"
#include "util/text.h"
#include "varn/tran.h"

namespace varn {
namespace {

static_assert(sizeof(TongItem) == kQuePayload);

struct Tong {
  TongPlace place;
  char host_name[sizeof(TongHead::host_name) + 1];
  char dir[512];
  char name[32];
  bool is_open;  // under tong_lock
  // Of records that are being built or wait for the writer. Apart from what producers only read.
  alignas(64) std::atomic<std::int64_t> queued_bytes;
  std::atomic<std::int64_t> written;  // since the start, as the next
  std::atomic<std::int64_t> dropped;
  std::atomic<std::int32_t> nfailcount;  // not queued since the writer last opened a file
};
constinit Tong tong = {};

pthread_mutex_t tong_lock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<pthread_t> tong_lock_holder;  // for a fork inside; 0: nobody

class [[nodiscard]] TongGuard {
 public:
  TongGuard() {
    pthread_mutex_lock(&tong_lock);
    tong_lock_holder.store(pthread_self(), std::memory_order_relaxed);
  }
  ~TongGuard() {
    tong_lock_holder.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&tong_lock);
  }
  TongGuard(const TongGuard&) = delete;
  TongGuard& operator=(const TongGuard&) = delete;
};

// Before its memory is allocated, so that many threads together do not exceed the budget either.
bool reserve(std::int64_t bytes) {
  if (tong.queued_bytes.fetch_add(bytes, std::memory_order_relaxed) + bytes <= tong.place.budget)
    return true;
  tong.queued_bytes.fetch_sub(bytes, std::memory_order_relaxed);
  return false;
}

void build_record(char* record, const char* telegram, std::size_t n, int kind) {
  constexpr std::size_t kGidAt = sttl::k_GLBL_ID.offset;
  TongHead& head = *reinterpret_cast<TongHead*>(record);
  const TimeVal tv = now();
  const std::size_t gid_bytes = std::min(n - std::min(n, kGidAt), sizeof head.gid);
  put_padded(head.gid, sizeof head.gid, {telegram + kGidAt, static_cast<std::int32_t>(gid_bytes)});
  put_digits(head.seconds, sizeof head.seconds, tv.sec);
  put_digits(head.usec, sizeof head.usec, tv.usec);
  put_padded(head.host_name, sizeof head.host_name, {tong.host_name, -1});
  head.direction = get_sf_flag(kind);
  put_unsigned(head.length, sizeof head.length, n);
  std::memcpy(record + sizeof head, telegram, n);
  record[sizeof head + n] = '\n';
}

bool put_record(const TongItem& item) {
  const TongGuard guard;
  return tong.is_open && put_deffered_que(&item, sizeof item, kTongItem) == 1;
}

[[gnu::cold, gnu::noinline]] void count_dropped(std::int64_t tid, const char* call) {
  std::int32_t count = 0;
  {
    const TongGuard guard;
    count = tong.nfailcount.fetch_add(1, std::memory_order_relaxed) + 1;
    tong.dropped.fetch_add(1, std::memory_order_relaxed);
  }
  if (count == 1 || count % 100 == 0)
    VARN_LOG_LIMITED("<!> %s fail.(cnt %d) [tid:%ld].", call, count, tid);
}

[[gnu::cold, gnu::noinline]] void log_short(const char* telegram, std::size_t n, int kind) {
  const ErrnoGuard errno_kept;
  const std::string_view text = printable({telegram, static_cast<std::int32_t>(n)}, kLeastTelegram);
  const auto size = static_cast<int>(text.size());
  const bool is_named = kind >= kStartApi && kind <= kWebEndApi;
  VARN_LOG_LIMITED(
      ">> %s [%.*s] 통전문 길이 체크 오류(최소 길이(%d)보다 작음, %d byte) : 내용|%.*s|",
      is_named ? api_type_nm[static_cast<std::size_t>(kind - kStartApi)] : "",
      size == 12 ? 9 : size, text.data(), static_cast<int>(kLeastTelegram), static_cast<int>(n),
      size, text.data());
}

// With the lock held.
void release_queued() {
  for (const QueItem* queued = get_deffered_que(); queued != nullptr; queued = get_deffered_que()) {
    TongItem item;
    std::memcpy(&item, queued->payload, sizeof item);
    release_record(item, false);
  }
}

}  // namespace

bool open_tong(const TongPlace& place) {
  const TongGuard guard;
  // Of a failed start, of a stop that left its writer behind, or of the process that forked this
  // one.
  release_queued();
  tong.queued_bytes.store(0);
  if (create_deffered_que(0) == 0) return false;
  put_zero_ended(tong.host_name, Text(place.host_name, -1).clipped(sizeof tong.host_name));
  put_zero_ended(tong.dir, place.dir);
  put_zero_ended(tong.name, place.name);
  std::replace(tong.name, tong.name + std::strlen(tong.name), '/', '_');
  tong.place = place;
  tong.place.host_name = tong.host_name;
  tong.place.dir = tong.dir;
  tong.place.name = tong.name;
  tong.written.store(0);
  tong.dropped.store(0);
  tong.nfailcount.store(0);
  tong.is_open = true;
  return true;
}

void refuse_telegrams() {
  const TongGuard guard;
  tong.is_open = false;
}

void drop_queued_telegrams() {
  const TongGuard guard;
  release_queued();
}

TongCounts tong_counts() {
  return {tong.written.load(), tong.dropped.load() + get_deffered_queueing()};
}

void forget_tong() {
  // A fork from a signal handler inside a put returns into it, and it unlocks.
  if (tong_lock_holder.load(std::memory_order_relaxed) != pthread_self()) {
    tong_lock_holder.store(0, std::memory_order_relaxed);
    pthread_mutex_init(&tong_lock, nullptr);
  }
  tong.is_open = false;
}

bool is_tong_logged() {
  const TRAN_LOGF_QUE_INFO* const info = tong.place.que_info;
  return info != nullptr && load(info->tong_log_flag) == '1';
}

bool is_telegram_too_long(std::int64_t tid, std::size_t n) {
  if (n <= kMostTongTelegram) return false;
  tong.dropped.fetch_add(1, std::memory_order_relaxed);
  VARN_LOG_LIMITED("<!> a telegram of over %zu bytes is not logged [tid:%ld].", kMostTongTelegram,
                   tid);
  return true;
}

void queue_telegram(std::int64_t tid, const char* call, const char* telegram, std::size_t n,
                    int kind) {
  const CancelGuard not_cancelled;
  const ErrnoGuard errno_kept;
  const auto size = static_cast<std::int64_t>(tong_record_size(n));
  if (!reserve(size)) return count_dropped(tid, call);
  const TongItem item = {size, static_cast<char*>(std::malloc(tong_record_size(n)))};
  if (item.record != nullptr) {
    build_record(item.record, telegram, n, kind);
    if (put_record(item)) return;
  }
  std::free(item.record);
  tong.queued_bytes.fetch_sub(size, std::memory_order_relaxed);
  count_dropped(tid, call);
}

int save_tong_log4c(int tid, const char* telegram, int len, int kind) {
  if (telegram == nullptr || !is_tong_logged()) return 0;
  const std::size_t n =
      len < 0 ? strnlen(telegram, kMostTongTelegram + 1) : static_cast<std::size_t>(len);
  if (n < kLeastTelegram) {
    log_short(telegram, n, kind);
    return TRAN_RC_SHORT_TELEGRAM;
  }
  if (!is_telegram_too_long(tid, n)) queue_telegram(tid, "put_deffered_que", telegram, n, kind);
  return 0;
}

char get_sf_flag(int kind) {
  switch (kind) {
    case kStartApi:
    case kClhStartApi:
    case kPtStartApi:
    case kWebStartApi:
      return 'S';
    case kEndApi:
    case kClhEndApi:
    case kPtEndApi:
    case kWebEndApi:
      return 'F';
    default:
      return 'U';
  }
}

const TongPlace& tong_place() { return tong.place; }

void reset_nfailcount() { tong.nfailcount.store(0, std::memory_order_relaxed); }

void release_record(const TongItem& item, bool is_written) {
  std::free(item.record);
  tong.queued_bytes.fetch_sub(item.size, std::memory_order_relaxed);
  (is_written ? tong.written : tong.dropped).fetch_add(1, std::memory_order_relaxed);
}

}  // namespace varn
