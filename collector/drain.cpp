#include "collector/drain.h"

#include <sys/msg.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <utility>

#include "collector/objects.h"
#include "util/msgq.h"

namespace varn {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kBatchRecords = 128;
constexpr auto kIdle = seconds(1);  // without a record, before a reader lets itself be woken
constexpr auto kLongestFarewell = seconds(1);  // of reading on while senders do not stop
constexpr auto kShortestRest = microseconds(50);
constexpr auto kLongestRest = milliseconds(10);

// Ends a reader's sleep. No record: those are never empty, and their type is another.
constexpr long kWakeType = 0x57414b45;

static_assert(sizeof(long) == sizeof(std::int64_t));

enum class Got { kRecord, kWake, kNothing, kFault };

// The rare message that is longer than a record. By now another collector may have taken it, so
// that whatever comes is judged by its own size.
ssize_t receive_cut(int msqid, TRAN_LOGF_QUE_DATA& data) {
  struct {
    std::int64_t mtype;
    char text[kRecordTextSize + 1];
  } message;
  const ssize_t n = msgrcv(msqid, &message, sizeof message.text, 0, MSG_NOERROR | IPC_NOWAIT);
  if (n >= 0) std::memcpy(&data, &message, sizeof data);
  return n;
}

// One message, if there is one or, with `wait`, when one comes. A fault stands in errno.
Got receive(int msqid, bool wait, RawRecord& out) {
  ssize_t n = 0;
  do {
    n = msgrcv(msqid, &out.data, kRecordTextSize, 0, wait ? 0 : IPC_NOWAIT);
    if (n < 0 && errno == E2BIG) n = receive_cut(msqid, out.data);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return errno == ENOMSG ? Got::kNothing : Got::kFault;
  if (n == 0 && out.data.mtype == kWakeType) return Got::kWake;
  out.size = static_cast<std::uint32_t>(n);
  if (out.size < kRecordTextSize) {
    char* const text = reinterpret_cast<char*>(&out.data) + offsetof(TRAN_LOGF_QUE_DATA, length);
    std::memset(text + out.size, ' ', kRecordTextSize - out.size);
  }
  return Got::kRecord;
}

// How long a queue may be left alone: a quarter of the time in which it would fill at the highest
// rate seen lately. The rate is never taken as lower than what one busy thread may send the moment
// the reader looks away.
class Pace {
 public:
  Pace(long capacity, Clock::time_point now)
      : capacity_(static_cast<double>(std::max(capacity, 1L))), since_(now) {}

  void count(std::size_t records, Clock::time_point now) {
    records_ += records;
    if (now - since_ < kWindow) return;
    const std::chrono::duration<double> span = now - since_;
    const double kept = peak_ * std::exp2(-span.count() / kHalfLifeSec);
    peak_ = std::max(kept, static_cast<double>(records_) / span.count());
    records_ = 0;
    since_ = now;
  }

  std::chrono::nanoseconds rest() const {
    const double sec = capacity_ / 4 / std::max(peak_, kLeastRate);
    const auto span = std::chrono::duration<double>(sec);
    return std::clamp<std::chrono::nanoseconds>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(span), kShortestRest, kLongestRest);
  }

 private:
  static constexpr auto kWindow = milliseconds(1);
  static constexpr double kHalfLifeSec = 5;
  static constexpr double kLeastRate = 100'000;  // records a second

  double capacity_;
  double peak_ = 0;
  Clock::time_point since_;
  std::size_t records_ = 0;
};

}  // namespace

Drain::Drain(std::vector<int> msgq_ids, Consumer consumer, DrainOptions options)
    : msgq_ids_(std::move(msgq_ids)),
      consumer_(std::move(consumer)),
      options_(std::move(options)),
      readers_left_(static_cast<int>(msgq_ids_.size())) {
  consumer_thread_ = std::thread(&Drain::consume, this);
  for (int queue = 0; queue < static_cast<int>(msgq_ids_.size()); ++queue)
    readers_.emplace_back(&Drain::read_queue, this, queue);
}

void Drain::stop() {
  if (!consumer_thread_.joinable()) return;
  stopping_.store(true);
  // The message stays on the queue until a reader takes it, so one that is only about to fall
  // asleep is woken too. A full queue takes none, and its reader does not sleep.
  struct {
    long mtype = kWakeType;
    char text[1] = {};
  } wake;
  for (const int msqid : msgq_ids_) send_msgq(msqid, &wake, 0);
  for (std::thread& reader : readers_) reader.join();
  for (const int msqid : msgq_ids_)
    while (msgrcv(msqid, &wake, 0, kWakeType, IPC_NOWAIT) >= 0) {
    }
  {
    const std::lock_guard guard(lock_);
    readers_done_ = true;
  }
  batch_ready_.notify_one();
  consumer_thread_.join();
}

void Drain::read_queue(int queue) {
  const int msqid = msgq_ids_[static_cast<std::size_t>(queue)];
  prctl(PR_SET_TIMERSLACK, 1000UL);  // else the kernel doubles the shortest rest

  Batch batch{std::vector<RawRecord>(kBatchRecords)};
  Clock::time_point now = Clock::now();
  Clock::time_point last_record = now;
  Clock::time_point farewell_end = {};
  Pace pace(queue_records(msqid), now);
  bool farewell = false;
  std::size_t owed = 0;  // records still to be read of those held when reading was to stop
  const auto receive_next = [&](bool wait) {
    RawRecord& record = batch.records[batch.count];
    record.queue = queue;
    const Got got = receive(msqid, wait, record);
    if (got == Got::kRecord) ++batch.count;
    return got;
  };

  for (;;) {
    // Read before the messages are: an empty queue afterwards held nothing when stop() was called.
    const bool stopping = stopping_.load();
    if (stopping && !farewell) {
      farewell = true;
      farewell_end = Clock::now() + kLongestFarewell;
      owed = static_cast<std::size_t>(std::max(0L, get_msgq_num(msqid)));
    }

    Got got = Got::kRecord;
    while (batch.count < kBatchRecords && got == Got::kRecord) got = receive_next(false);
    int fault = got == Got::kFault ? errno : 0;
    now = Clock::now();
    pace.count(batch.count, now);
    if (batch.count > 0) last_record = now;
    owed -= std::min(owed, batch.count);
    hand_on(batch);

    if (got == Got::kNothing) {
      if (stopping) return;
      const bool idle = now - last_record > kIdle;
      if (options_.waiting == Waiting::kPoll) {
        std::this_thread::yield();
      } else if (options_.waiting == Waiting::kRest && !idle) {
        std::this_thread::sleep_for(pace.rest());
      } else if (!stopping_.load()) {
        // Looked at again, after the queue was seen empty: a wake that found the queue full was not
        // sent, and one that came during the pass is gone.
        if (receive_next(true) == Got::kFault) fault = errno;
        last_record = Clock::now();
      }
    }
    if (fault != 0) return reader_lost(queue, fault);
    if (stopping && owed == 0 && now > farewell_end) return;
  }
}

void Drain::reader_lost(int queue, int fault) {
  const int left = readers_left_.fetch_sub(1) - 1;
  if (!options_.on_reader_lost) return;
  const bool removed = fault == EIDRM || fault == EINVAL;
  options_.on_reader_lost(
      "queue " + std::to_string(queue) +
          (removed ? " was removed" : std::string(" cannot be read: ") + std::strerror(fault)),
      left);
}

// Waits while the consumer is too far behind. Leaves an empty batch.
void Drain::hand_on(Batch& batch) {
  if (batch.count == 0) return;
  {
    std::unique_lock guard(lock_);
    room_ready_.wait(guard, [&] {
      return buffered_ == 0 || buffered_ + batch.count <= options_.buffer_records;
    });
    buffered_ += batch.count;
    if (batch.count == kBatchRecords && !spare_batches_.empty()) {
      batches_.push_back(std::exchange(batch, std::move(spare_batches_.back())));
      spare_batches_.pop_back();
    } else {  // a copy takes no more room than its records
      const auto begin = batch.records.begin();
      batches_.push_back({{begin, begin + static_cast<std::ptrdiff_t>(batch.count)}, batch.count});
    }
    batch.count = 0;
  }
  batch_ready_.notify_one();
}

void Drain::consume() {
  std::unique_lock guard(lock_);
  for (;;) {
    batch_ready_.wait(guard, [&] { return !batches_.empty() || readers_done_; });
    if (batches_.empty()) return;
    Batch batch = std::move(batches_.front());
    batches_.pop_front();
    guard.unlock();
    consumer_({batch.records.data(), batch.count});
    guard.lock();
    buffered_ -= batch.count;
    if (batch.records.size() == kBatchRecords && spare_batches_.size() < 2 * msgq_ids_.size())
      spare_batches_.push_back(std::move(batch));
    room_ready_.notify_all();
  }
}

}  // namespace varn
