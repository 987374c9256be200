// Reading the trace queues: one thread a queue receives, one thread hands on what was received.
//
// How a reader waits decides what the traced threads pay: a send that finds the reader asleep in
// the kernel's receive has to wake it, which costs several times the send itself. So a reader takes
// all there is, then rests on a timer for as long as the queue's room and the rate of its records
// allow, and lets itself be woken only when nothing has come for a second.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "layout/record.h"

namespace varn {

enum class Waiting {
  kRest,   // as described above
  kBlock,  // in the kernel's receive whenever the queue is empty
  kPoll,   // never: asks again and again, a processor per queue
};

// A message as it came. Bytes of `data` behind the first `size` of the text are blanks.
struct RawRecord {
  int queue = 0;
  std::uint32_t size = 0;  // of the text; kRecordTextSize + 1 stands for any longer message
  TRAN_LOGF_QUE_DATA data = {};

  bool malformed() const { return size != kRecordTextSize; }
};

// Called by one thread, with the records of one queue in their order. Must not throw.
using Consumer = std::function<void(std::span<const RawRecord>)>;

struct DrainOptions {
  Waiting waiting = Waiting::kRest;
  // Records kept while the consumer is busy; beyond that the queues fill.
  std::size_t buffer_records = 65'536;
  // Called by a reader that can read no more, because its queue was removed say, with the reason
  // and the number of readers left.
  std::function<void(const std::string& reason, int readers_left)> on_reader_lost;
};

// Reads from construction until stop().
class Drain {
 public:
  Drain(std::vector<int> msgq_ids, Consumer consumer, DrainOptions options = {});
  ~Drain() { stop(); }
  Drain(const Drain&) = delete;
  Drain& operator=(const Drain&) = delete;

  // Returns when everything that the queues held at the call has gone through the consumer. Reading
  // ends when a queue is empty, or, where senders go on, after about a second. May be called again.
  void stop();

 private:
  // The first `count` of some records.
  struct Batch {
    std::vector<RawRecord> records;
    std::size_t count = 0;
  };

  void read_queue(int queue);
  void consume();
  void hand_on(Batch& batch);
  void reader_lost(int queue, int fault);

  const std::vector<int> msgq_ids_;
  const Consumer consumer_;
  const DrainOptions options_;
  std::atomic<bool> stopping_{false};
  std::atomic<int> readers_left_;

  std::mutex lock_;  // guards what stands below it up to readers_done_
  std::condition_variable batch_ready_;
  std::condition_variable room_ready_;
  std::deque<Batch> batches_;
  std::vector<Batch> spare_batches_;  // full-sized ones that the consumer is done with
  std::size_t buffered_ = 0;          // records in batches_ and in the consumer's hands
  bool readers_done_ = false;

  std::vector<std::thread> readers_;
  std::thread consumer_thread_;
};

}  // namespace varn
