// Which queue a record goes to, and what happens when it cannot go there.
#include <atomic>
#include <thread>

#include "records/traced.h"
#include "util/msgq.h"

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

// A collector whose traced processes send no event at their start.
class Dispatch : public testing::Test {
 protected:
  explicit Dispatch(int queues = 4) : collector{{.queues = queues}} {
    collector.que_info().log_flag_set = 0xFF & ~0x04;
  }
  int que_idx() { return collector.entry_of(getpid(), kThread)->que_idx; }
  std::uint32_t failed() { return collector.que_info().que_fail_cnt[0]; }

  FakeCollector collector;
};
class OneQueue : public Dispatch {
 protected:
  OneQueue() : Dispatch(1) {}
};

TEST_F(Dispatch, TheHashOfTheConfiguredGidRangeChoosesTheQueue) {
  struct {
    const char* range;
    std::size_t position, size;
  } const cases[] = {
      {"0 32", 0, 32}, {"0 30", 0, 30}, {"10 6", 10, 6}, {"31 1", 31, 1}, {"3 0", 3, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.range);
    collector.set_key(kWriteQueIdxGidRng, c.range);
    std::vector<std::string> sent_to[4];
    for (int i = 0; i < 9; ++i) {
      const std::string gid = padded(gid_no(i), 32);
      sent_to[hash(gid.substr(c.position, c.size)) & 3].push_back(gid);
    }
    EXPECT_TRUE(collector.run([&] {
      ASSERT_EQ(TRAN_INIT(), 0);
      for (int i = 0; i < 9; ++i) {
        const int queue = send(gid_no(i));
        EXPECT_EQ(que_idx(), queue);
      }
    }));
    for (int queue = 0; queue < 4; ++queue) {
      std::vector<std::string> received;
      for (const Record& record : collector.read_queue(queue))
        received.push_back(field_of(record, kGid));
      EXPECT_EQ(received, sent_to[queue]) << queue;
    }
  }
}

TEST_F(OneQueue, WhenFullCostsTheRecordAndCountsIt) {
  EXPECT_TRUE(collector.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    int rc = 0;
    while (rc == 0) rc = send("G");
    EXPECT_EQ(rc, TRAN_RC_NOT_SENT);
    EXPECT_EQ(failed(), 1U);
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), TRAN_RC_NOT_SENT);
    EXPECT_EQ(failed(), 2U);
    EXPECT_EQ(collector.entry_of(getpid(), kThread)->tran_state, 'f') << "the service runs";
    collector.read_all();
    EXPECT_EQ(end({}), 0);
  }));
}

TEST_F(OneQueue, FailedSendsOfManyProcessesAreCountedExactly) {
  struct Counts {
    std::atomic<int> started, sent, refused;
  };
  const Shared<Counts> counts;
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int n = 0; n < 4; ++n) {
    children.push_back(collector.start([&] {
      ASSERT_EQ(TRAN_INIT(), 0);
      ++counts->started;
      ASSERT_TRUE(wait_until([&] { return counts->started == 4; }));
      for (int i = 0; i < 2000; ++i) ++(send("G") == 0 ? counts->sent : counts->refused);
    }));
  }
  for (const auto& child : children) ASSERT_TRUE(child->wait());
  EXPECT_GT(counts->refused, 0);
  EXPECT_EQ(counts->sent + counts->refused, 4 * 2000);
  EXPECT_EQ(failed(), static_cast<std::uint32_t>(counts->refused));
  EXPECT_EQ(collector.read_all().size(), static_cast<std::size_t>(counts->sent));
}

TEST_F(OneQueue, WhenRemovedCountsAsFailedUntilItComesBackUnderItsKey) {
  EXPECT_TRUE(collector.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    collector.object(kTranLogfMsgqKey).remove();
    for (int i = 0; i < 5; ++i) EXPECT_EQ(send("lost"), TRAN_RC_NOT_SENT);
    collector.object(kTranLogfMsgqKey).replace();
    std::uint32_t lost = 5;
    EXPECT_TRUE(wait_until([&] { return send("after") == 0 || ++lost == 0; }, 2500ms));
    EXPECT_EQ(failed(), lost);
    EXPECT_EQ(types_of(collector.read_all()), "I");
    collector.object(kTranLogfMsgqKey).remove();
  }));
}

TEST_F(Dispatch, AMaskGrownPastTheOpenedQueuesTouchesNothingElse) {
  // Under the key that follows those of the opened queues; no queue of this system.
  const IpcObject foreign(IpcKind::kQueue, collector.object(kTranLogfMsgqKey).key() + 4, 0, 0666);
  for (const std::uint32_t mask : {15U, 0xFFFFFFFFU}) {
    SCOPED_TRACE(mask);
    EXPECT_TRUE(collector.run([&] {
      ASSERT_EQ(TRAN_INIT(), 0);
      collector.que_info().que_mask = mask;
      TRAN_LOGF_QUE_INFO expected = collector.que_info();
      for (int i = 0; i < 64; ++i) {
        const std::uint32_t queue = hash(padded(gid_no(i), 30)) & mask;
        if (queue >= 4) ++expected.que_fail_cnt[queue % 16];
        EXPECT_EQ(send(gid_no(i)), queue < 4 ? static_cast<int>(queue) : TRAN_RC_NOT_SENT);
        EXPECT_EQ(que_idx(), static_cast<int>(queue & 0xFF));
      }
      EXPECT_EQ(std::memcmp(&collector.que_info(), &expected, sizeof expected), 0);
    }));
    EXPECT_EQ(get_msgq_num(foreign.id()), 0);
  }
}

TEST_F(OneQueue, HasTheRecordsOfEveryThreadWithTheirOwnTexts) {
  EXPECT_TRUE(collector.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    std::vector<std::thread> threads;
    for (int n = 1; n <= 4; ++n) {
      threads.emplace_back([n] {
        const std::string name = "thread-" + std::to_string(n);
        for (int i = 0; i < 100; ++i) {
          start({.gid = name.c_str(), .svc_id = name.c_str()}, n);
          info({.message = name.c_str()}, n);
          end({}, n);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  }));
  const auto records = collector.read_all();
  for (const Record& record : records) {
    const std::string name = text_of(record, kGid);
    EXPECT_EQ(text_of(record, kSvcId), name);
    EXPECT_EQ("thread-" + std::to_string(std::stoi(text_of(record, kTid))), name);
    if (type_of(record) == 'I') {
      EXPECT_EQ(body_field(record, "message"), name);
    }
  }
  EXPECT_EQ(records.size() + failed(), 4U * 100 * 3);
}

}  // namespace
}  // namespace varn::test
