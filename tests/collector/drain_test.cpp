// Reading the queues: every message once, in order, and none left behind.
#include "collector/drain.h"

#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/syscall.h>

#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <limits>
#include <map>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "support/support.h"
#include "util/msgq.h"

namespace varn {
namespace {

using namespace std::chrono_literals;
using test::wait_until;

struct Mark {
  int sender;
  int number;
};

int send(int msqid, Mark mark, int flags = 0) {
  TRAN_LOGF_QUE_DATA record = {};
  record.mtype = kRecordMsgType;
  std::memcpy(record.view, &mark, sizeof mark);
  return msgsnd(msqid, &record, kRecordTextSize, flags);
}

// How many threads of this process sleep in the kernel's receive.
int receiving() {
  const std::string in_receive = std::to_string(SYS_msgrcv) + " ";
  int threads = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    threads += test::read_file(task.path() / "syscall").starts_with(in_receive) ? 1 : 0;
  return threads;
}

class Draining : public testing::TestWithParam<Waiting> {
 protected:
  Draining() {
    for (int& id : ids_) id = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  }
  ~Draining() override {
    drain_.reset();
    for (const int id : ids_) remove_msgq(id);
  }

  Drain& start(DrainOptions options = {}) {
    options.waiting = GetParam();
    const auto take = [this](std::span<const RawRecord> records) {
      received_.insert(received_.end(), records.begin(), records.end());
      count_ += records.size();
      if (slow_) std::this_thread::sleep_for(10ms);
    };
    return drain_.emplace(std::vector<int>(ids_.begin(), ids_.end()), take, std::move(options));
  }
  // Of a queue and a sender, as they came.
  std::vector<int> numbers(int queue, int sender) const {
    std::vector<int> found;
    for (const RawRecord& record : received_) {
      Mark mark;
      std::memcpy(&mark, record.data.view, sizeof mark);
      if (record.queue == queue && mark.sender == sender) found.push_back(mark.number);
    }
    return found;
  }

  std::array<int, 4> ids_;
  std::vector<RawRecord> received_;  // the consumer's until stop()
  std::atomic<std::size_t> count_{0};
  std::atomic<bool> slow_{false};
  std::optional<Drain> drain_;
};

TEST_P(Draining, HandsOnEveryRecordOfManySendersOnceAndInOrder) {
  std::vector<int> all(2000);
  std::iota(all.begin(), all.end(), 0);
  Drain& drain = start({.buffer_records = 200, .on_reader_lost = {}});
  std::vector<std::future<void>> senders;
  for (int sender = 0; sender < 3; ++sender)
    senders.push_back(std::async(std::launch::async, [&, sender] {
      for (const int number : all)
        for (const int id : ids_) EXPECT_EQ(send(id, {sender, number}), 0);
    }));
  senders.clear();  // waits for them
  drain.stop();
  EXPECT_EQ(received_.size(), 4 * 3 * all.size());
  for (int queue = 0; queue < 4; ++queue)
    for (int sender = 0; sender < 3; ++sender)
      EXPECT_EQ(numbers(queue, sender), all) << queue << ' ' << sender;
}

TEST_P(Draining, StopsWhenAllThatTheQueuesHeldIsHandedOn) {
  std::size_t held = 0;
  while (send(ids_[0], {}, IPC_NOWAIT) == 0) ++held;  // full to the brim
  start().stop();
  EXPECT_EQ(received_.size(), held);

  // A sender that keeps the queue full does not hold it up; what was sent before counts.
  slow_ = true;
  std::atomic<int> sent{0};
  Drain& drain = start({.buffer_records = 200, .on_reader_lost = {}});
  auto sender = std::async(std::launch::async, [&] {
    while (send(ids_[1], {1, sent}) == 0) ++sent;
  });
  EXPECT_TRUE(wait_until([&] { return sent > 1000; }));
  const auto sent_before = static_cast<std::size_t>(sent);
  drain.stop();
  remove_msgq(ids_[1]);
  sender.wait();
  const std::vector<int> got = numbers(1, 1);
  EXPECT_GE(got.size(), sent_before);
  for (std::size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], static_cast<int>(i));
}

TEST_P(Draining, StopsAtOnceWhereverItsReadersAre) {
  for (auto pause = 0us; pause < 2ms; pause += 40us) {
    Drain& drain = start();
    std::this_thread::sleep_for(pause);
    drain.stop();
  }
  Drain& drain = start();
  const auto rests = [] { return GetParam() == Waiting::kPoll || receiving() == 4; };
  EXPECT_TRUE(wait_until(rests));
  EXPECT_EQ(send(ids_[2], {}), 0);
  EXPECT_TRUE(wait_until([&] { return count_ == 1; })) << "a sleeping reader is woken";
  EXPECT_TRUE(wait_until(rests));
  const auto begin = std::chrono::steady_clock::now();
  drain.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 900ms);
  for (const int id : ids_) EXPECT_EQ(get_msgq_num(id), 0) << "a wake-up was left behind";
}

TEST_P(Draining, TakesMessagesOfAnySizeAndTellsThemApart) {
  Drain& drain = start();
  struct {
    long mtype = 1;
    char text[4000];
  } message;
  std::memset(message.text, 'z', sizeof message.text);
  const std::vector<std::size_t> sizes = {0, 784, 1, 783, 4000, 785, 784};
  for (const std::size_t size : sizes) {
    ASSERT_EQ(msgsnd(ids_[3], &message, size, 0), 0);
    message.mtype = std::numeric_limits<long>::max();
  }
  drain.stop();
  ASSERT_EQ(received_.size(), sizes.size());
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    EXPECT_EQ(received_[i].size, std::min<std::size_t>(sizes[i], 785));
    EXPECT_EQ(received_[i].malformed(), sizes[i] != 784);
    std::string text(std::min<std::size_t>(sizes[i], 784), 'z');
    text.resize(784, ' ');
    EXPECT_EQ(std::memcmp(&received_[i].data.length, text.data(), 784), 0) << sizes[i];
  }
}

TEST_P(Draining, EndsOnlyTheReaderOfARemovedQueue) {
  std::string first_reason;
  std::atomic<int> left{4};
  Drain& drain = start({.on_reader_lost = [&](const std::string& reason, int readers_left) {
    if (readers_left == 3) first_reason = reason;
    --left;
  }});
  remove_msgq(ids_[1]);
  EXPECT_TRUE(wait_until([&] { return left == 3; }));
  EXPECT_EQ(first_reason, "queue 1 was removed");
  EXPECT_EQ(send(ids_[2], {}), 0);
  EXPECT_TRUE(wait_until([&] { return count_ == 1; }));
  for (const int id : ids_) remove_msgq(id);
  EXPECT_TRUE(wait_until([&] { return left == 0; }));
  drain.stop();
}

INSTANTIATE_TEST_SUITE_P(EveryWayOfWaiting, Draining,
                         testing::Values(Waiting::kRest, Waiting::kBlock, Waiting::kPoll));

}  // namespace
}  // namespace varn
