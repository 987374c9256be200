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
constexpr auto kIdle = seconds(1);            // without a record, before a reader lets itself be woken
constexpr auto kLongestFarewell = seconds(1);  // of reading on while senders do not stop
constexpr auto kShortestRest = microseconds(50);
constexpr auto kLongestRest = milliseconds(10);

// Ends a reader's sleep. No record: those are never empty, and their type is another.
constexpr long kWakeType = 0x57414b45;

struct Message {
  std::int64_t mtype;
  char text[kRecordTextSize + 1];  // one byte more than a record shows that a message is longer
};
static_assert(sizeof(long) == sizeof(std::int64_t));

enum class Got { kRecord, kWake, kNothing, kFault };

// One message, if there is one or, with `wait`, when one comes. A fault stands in errno.
Got receive(int msqid, bool wait, RawRecord& out) {
  Message message;
  ssize_t n = 0;
  do {
    n = msgrcv(msqid, &message, sizeof message.text, 0, MSG_NOERROR | (wait ? 0 : IPC_NOWAIT));
  } while (n < 0 && errno == EINTR);
  if (n < 0) return errno == ENOMSG ? Got::kNothing : Got::kFault;
  if (n == 0 && message.mtype == kWakeType) return Got::kWake;
  out.size = static_cast<std::uint32_t>(n);
  const std::size_t kept = std::min(static_cast<std::size_t>(n), kRecordTextSize);
  char* const text = reinterpret_cast<char*>(&out.data) + offsetof(TRAN_LOGF_QUE_DATA, length);
  out.data.mtype = message.mtype;
  std::memcpy(text, message.text, kept);
  std::memset(text + kept, ' ', kRecordTextSize - kept);
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
  // The message stays on the queue until a reader takes it, so one that is only about to fall asleep
  // is woken too. A full queue takes none, and its reader does not sleep.
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

  Batch batch;
  batch.reserve(kBatchRecords);
  RawRecord record;
  record.queue = queue;
  Clock::time_point now = Clock::now();
  Clock::time_point last_record = now;
  Clock::time_point farewell_end = {};
  Pace pace(queue_records(msqid), now);
  bool farewell = false;
  std::size_t owed = 0;  // records still to be read of those held when reading was to stop

  for (;;) {
    // Read before the messages are: an empty queue afterwards held nothing when stop() was called.
    const bool stopping = stopping_.load();
    if (stopping && !farewell) {
      farewell = true;
      farewell_end = now + kLongestFarewell;
      owed = static_cast<std::size_t>(std::max(0L, get_msgq_num(msqid)));
    }

    Got got = Got::kRecord;
    while (batch.size() < kBatchRecords) {
      got = receive(msqid, false, record);
      if (got == Got::kRecord) batch.push_back(record);
      if (got == Got::kNothing || got == Got::kFault) break;
    }
    int fault = got == Got::kFault ? errno : 0;
    now = Clock::now();
    pace.count(batch.size(), now);
    if (!batch.empty()) last_record = now;
    owed -= std::min(owed, batch.size());
    hand_on(batch);

    if (fault == 0 && got == Got::kNothing) {
      if (stopping) return;
      const bool idle = now - last_record > kIdle;
      if (options_.waiting == Waiting::kRest && !idle) {
        std::this_thread::sleep_for(pace.rest());
      } else if (options_.waiting != Waiting::kPoll) {
        got = receive(msqid, true, record);
        if (got == Got::kRecord) batch.push_back(record);
        if (got == Got::kFault) fault = errno;
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
  options_.on_reader_lost("queue " + std::to_string(queue) +
                              (removed ? " was removed" : std::string(" cannot be read: ") +
                                                              std::strerror(fault)),
                          left);
}

// Waits while the consumer is too far behind. Leaves an empty batch.
void Drain::hand_on(Batch& batch) {
  if (batch.empty()) return;
  {
    std::unique_lock guard(lock_);
    room_ready_.wait(guard, [&] {
      return buffered_ == 0 || buffered_ + batch.size() <= options_.buffer_records;
    });
    buffered_ += batch.size();
    batches_.push_back(batch);  // a copy takes no more room than its records
  }
  batch_ready_.notify_one();
  batch.clear();
}

void Drain::consume() {
  std::unique_lock guard(lock_);
  for (;;) {
    batch_ready_.wait(guard, [&] { return !batches_.empty() || readers_done_; });
    if (batches_.empty()) return;
    const Batch batch = std::move(batches_.front());
    batches_.pop_front();
    guard.unlock();
    consumer_(batch);
    guard.lock();
    buffered_ -= batch.size();
    room_ready_.notify_all();
  }
}

}  // namespace varn
