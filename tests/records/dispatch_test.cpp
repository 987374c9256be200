// Which queue a record goes to, and what happens when it cannot go there.
#include <sys/msg.h>

#include <atomic>
#include <thread>

#include "records/traced.h"

namespace varn::test {
namespace {

// The queue hash, written in shifts.
std::uint32_t hash(std::string_view bytes) {
  std::uint32_t h = 0;
  for (const char c : bytes) {
    h += static_cast<unsigned char>(c);
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  return h + (h << 15);
}

std::string gid_no(int n) { return "2024010112" + std::to_string(n * 7919) + "-transaction\xB1"; }

int send(const std::string& gid, int thread = kThread) {
  return info({.gid = gid.c_str(), .svc_id = "SVC"}, thread);
}

struct Results {
  int rc[64];
  int que_idx[64];
  std::atomic<int> stage, sent, refused;
};

TEST(Dispatch, TheHashOfTheConfiguredGidRangeChoosesTheQueue) {
  struct {
    const char* range;
    std::size_t position, size, fewest_queues;
  } const cases[] = {
      {"0 32", 0, 32, 2}, {"0 30", 0, 30, 2}, {"10 6", 10, 6, 2},
      {"31 1", 31, 1, 1}, {"3 0", 3, 0, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.range);
    FakeCollector collector;
    collector.que_info().log_flag_set = 0xFF & ~0x04;  // no event at the start
    collector.set_key(kWriteQueIdxGidRng, c.range);
    Shared<Results> results;
    ASSERT_TRUE(collector.run([&] {
      ASSERT_EQ(TRAN_INIT(), 0);
      for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 9; ++i) {
          results->rc[i] = send(gid_no(i));
          results->que_idx[i] = collector.entry_of(getpid(), kThread)->que_idx;
        }
      }
    }));
    std::vector<std::string> sent_to[4];
    for (int round = 0; round < 2; ++round) {
      for (int i = 0; i < 9; ++i) {
        const std::string gid = padded(gid_no(i), 32);
        const std::uint32_t queue = hash(gid.substr(c.position, c.size)) & 3;
        EXPECT_EQ(results->rc[i], static_cast<int>(queue)) << i;
        EXPECT_EQ(results->que_idx[i], static_cast<int>(queue)) << i;
        sent_to[queue].push_back(gid);
      }
    }
    std::size_t used = 0;
    for (int queue = 0; queue < 4; ++queue) {
      std::vector<std::string> received;
      for (const Record& record : collector.read_queue(queue))
        received.push_back(field_of(record, kGid));
      EXPECT_EQ(received, sent_to[queue]) << queue;
      used += received.empty() ? 0 : 1;
    }
    EXPECT_GE(used, c.fewest_queues);
  }
}

TEST(Dispatch, AFullQueueCostsTheRecordAndCountsIt) {
  FakeCollector collector{{.queues = 1}};
  ASSERT_TRUE(collector.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    int rc = 0;
    while (rc == 0) rc = send("G");
    EXPECT_EQ(rc, TRAN_RC_NOT_SENT);
    EXPECT_EQ(collector.que_info().que_fail_cnt[0], 1U);
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), TRAN_RC_NOT_SENT);
    EXPECT_EQ(collector.que_info().que_fail_cnt[0], 2U);
    EXPECT_EQ(collector.entry_of(getpid(), kThread)->tran_state, 'f') << "the service runs";
    collector.read_all();
    EXPECT_EQ(end({}), 0);
  }));
  EXPECT_EQ(collector.que_info().que_fail_cnt[0], 2U);
}

TEST(Dispatch, FailedSendsOfManyProcessesAreCountedExactly) {
  constexpr int kProcesses = 4;
  constexpr int kCalls = 2000;
  FakeCollector collector{{.queues = 1}};
  collector.que_info().log_flag_set = 0xFF & ~0x04;
  Shared<Results> results;
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int n = 0; n < kProcesses; ++n) {
    children.push_back(collector.start([&] {
      ASSERT_EQ(TRAN_INIT(), 0);
      ++results->stage;
      ASSERT_TRUE(wait_until([&] { return results->stage == kProcesses; }));
      for (int i = 0; i < kCalls; ++i) {
        const int rc = send("G");
        ASSERT_TRUE(rc == 0 || rc == TRAN_RC_NOT_SENT) << rc;
        ++(rc == 0 ? results->sent : results->refused);
      }
    }));
  }
  for (const auto& child : children) ASSERT_TRUE(child->wait());
  EXPECT_GT(results->refused, 0);
  EXPECT_EQ(results->sent + results->refused, kProcesses * kCalls);
  EXPECT_EQ(collector.que_info().que_fail_cnt[0], static_cast<std::uint32_t>(results->refused));
  EXPECT_EQ(collector.read_all().size(), static_cast<std::size_t>(results->sent));
}

TEST(Dispatch, ARemovedQueueCountsAsFailedUntilItComesBackUnderItsKey) {
  FakeCollector collector{{.queues = 1}};
  Shared<Results> results;
  const auto reach = [&](int stage) {
    results->stage = stage;
    return wait_until([&] { return results->stage == stage + 1; });
  };
  const auto traced = collector.start([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    ASSERT_EQ(send("before"), 0);
    ASSERT_TRUE(reach(1));
    for (int i = 0; i < 5; ++i) EXPECT_EQ(send("lost"), TRAN_RC_NOT_SENT);
    ASSERT_TRUE(reach(3));
    int more = 0;
    EXPECT_TRUE(wait_until([&] { return send("after") == 0 || ++more < 0; }, 2500ms));
    results->refused = 5 + more;
    EXPECT_EQ(send("after"), 0);
  });
  ASSERT_TRUE(wait_until([&] { return results->stage == 1; }));
  EXPECT_EQ(types_of(collector.read_all()), "VI");
  collector.remove_object(kTranLogfMsgqKey);
  results->stage = 2;
  ASSERT_TRUE(wait_until([&] { return results->stage == 3; }));
  collector.replace_queue(0);
  results->stage = 4;
  ASSERT_TRUE(traced->wait());
  EXPECT_EQ(collector.que_info().que_fail_cnt[0], static_cast<std::uint32_t>(results->refused));
  EXPECT_EQ(types_of(collector.read_all()), "II");
}

TEST(Dispatch, AMaskGrownPastTheOpenedQueuesTouchesNothingElse) {
  for (const std::uint32_t mask : {15U, 0xFFFFFFFFU}) {
    SCOPED_TRACE(mask);
    FakeCollector collector;
    collector.que_info().log_flag_set = 0xFF & ~0x04;
    Shared<Results> results;
    // Under the key that follows those of the opened queues; no queue of this system.
    const IpcObject foreign(IpcKind::kQueue, collector.key_base() + 0x10 + 4, 0, 0666);
    const TRAN_LOGF_QUE_INFO before = collector.que_info();
    ASSERT_TRUE(collector.run([&] {
      ASSERT_EQ(TRAN_INIT(), 0);
      collector.que_info().que_mask = mask;
      for (int i = 0; i < 64; ++i) {
        results->rc[i] = send(gid_no(i));
        results->que_idx[i] = collector.entry_of(getpid(), kThread)->que_idx;
      }
    }));
    TRAN_LOGF_QUE_INFO expected = before;
    expected.que_mask = mask;
    for (int i = 0; i < 64; ++i) {
      const std::uint32_t queue = hash(padded(gid_no(i), 30)) & mask;
      EXPECT_EQ(results->rc[i], queue < 4 ? static_cast<int>(queue) : TRAN_RC_NOT_SENT);
      EXPECT_EQ(results->que_idx[i], static_cast<int>(queue & 0xFF));
      if (queue >= 4) ++expected.que_fail_cnt[queue % 16];
    }
    EXPECT_EQ(std::memcmp(&collector.que_info(), &expected, sizeof expected), 0);
    msqid_ds state = {};
    ASSERT_EQ(msgctl(foreign.id(), IPC_STAT, &state), 0);
    EXPECT_EQ(state.msg_qnum, 0UL);
  }
}

TEST(Dispatch, ThreadsOfOneProcessSendRecordsOfTheirOwn) {
  constexpr int kThreads = 4;
  constexpr int kServices = 100;
  FakeCollector collector{{.queues = 1}};
  collector.que_info().log_flag_set = 0xFF & ~0x04;
  ASSERT_TRUE(collector.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    std::vector<std::thread> threads;
    for (int n = 1; n <= kThreads; ++n) {
      threads.emplace_back([n] {
        const std::string name = "thread-" + std::to_string(n);
        for (int i = 0; i < kServices; ++i) {
          start({.gid = name.c_str(), .svc_id = name.c_str()}, n);
          info({.message = name.c_str()}, n);
          end({}, n);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  }));
  std::size_t received = 0;
  for (const Record& record : collector.read_all()) {
    const std::string name = text_of(record, kGid);
    EXPECT_EQ(text_of(record, kSvcId), name);
    EXPECT_EQ("thread-" + std::to_string(std::stoi(text_of(record, kTid))), name);
    if (type_of(record) == 'I') {
      EXPECT_EQ(body_field(record, "message"), name);
    }
    ++received;
  }
  EXPECT_EQ(received + collector.que_info().que_fail_cnt[0], 3UL * kThreads * kServices);
}

}  // namespace
}  // namespace varn::test
