// Which queue a record goes to, and what happens when it cannot go there.
#include <atomic>
#include <thread>

#include "records/traced.h"
#include "util/msgq.h"

namespace varn::test {
namespace {

std::string gid_no(std::size_t n) {
  return "2024010112" + std::to_string((301 + n) * 7919) + "-transaction\xB1";
}
// The last hexadecimal digit of the hash of each of these, of the whole text.
constexpr std::string_view kDigits = "194c6065c923";
int digit(char c) { return c <= '9' ? c - '0' : c - 'a' + 10; }

constexpr std::uint8_t kNoEvents = 0xFF & ~0x04;  // not even at the start of a process

int send(const std::string& gid) { return info({.gid = gid.c_str(), .svc_id = "SVC"}); }

using OneQueue = RecordTest;

TEST(Dispatch, TheHashOfTheConfiguredGidRangeChoosesTheQueue) {
  const std::pair<const char*, std::string_view> cases[] = {{"0 32", "30dcbb7e347b"},
                                                            {"0 30", kDigits},
                                                            {"10 6", "2f5a151a5b50"},
                                                            {"31 1", "222222222222"},
                                                            {"3 0", "000000000000"}};
  FakeCollector collector;
  collector.que_info().log_flag_set = kNoEvents;
  for (const auto& [range, digits] : cases) {
    SCOPED_TRACE(range);
    collector.set_key(kWriteQueIdxGidRng, range);
    EXPECT_TRUE(collector.run([&, digits = digits] {
      ASSERT_EQ(TRAN_INIT(), 0);
      for (std::size_t i = 0; i < digits.size(); ++i)
        EXPECT_EQ(send(gid_no(i)), digit(digits[i]) % 4);
    }));
    for (int queue = 0; queue < 4; ++queue) {
      std::string expected, received;
      for (std::size_t i = 0; i < digits.size(); ++i)
        if (digit(digits[i]) % 4 == queue) expected += padded(gid_no(i), 32);
      for (const Record& record : collector.read_queue(queue)) received += field_of(record, kGid);
      EXPECT_EQ(received, expected) << queue;
    }
  }
}

TEST(Dispatch, AMaskGrownPastTheOpenedQueuesTouchesNothingElse) {
  FakeCollector collector;
  collector.que_info().log_flag_set = kNoEvents;
  // Under the key that follows those of the opened queues; no queue of this system.
  const IpcObject foreign(IpcKind::kQueue, collector.object(kTranLogfMsgqKey).key() + 4, 0, 0666);
  for (const std::uint32_t mask : {15U, 0xFFFFFFFFU}) {
    SCOPED_TRACE(mask);
    EXPECT_TRUE(collector.run([&] {
      ASSERT_EQ(TRAN_INIT(), 0);
      collector.que_info().que_mask = mask;
      TRAN_LOGF_QUE_INFO expected = collector.que_info();
      for (std::size_t i = 0; i < kDigits.size(); ++i) {
        const int queue = digit(kDigits[i]);
        const bool is_open = mask == 15 && queue < 4;
        if (!is_open) ++expected.que_fail_cnt[queue];
        EXPECT_EQ(send(gid_no(i)), is_open ? queue : TRAN_RC_NOT_SENT);
        EXPECT_EQ(collector.entry_of(getpid(), kThread)->que_idx & 15, queue);
      }
      EXPECT_EQ(std::memcmp(&collector.que_info(), &expected, sizeof expected), 0);
    }));
    EXPECT_EQ(get_msgq_num(foreign.id()), 0);
  }
}

TEST_F(OneQueue, WhenFullCostsTheRecordsAndCountsThemOfAllProcesses) {
  struct Counts {
    std::atomic<std::uint32_t> started, sent, refused;
  };
  const Shared<Counts> counts;
  collector.que_info().log_flag_set = kNoEvents;
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
  EXPECT_GT(counts->refused, 0U);
  EXPECT_TRUE(collector.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), TRAN_RC_NOT_SENT);
    EXPECT_EQ(collector.entry_of(getpid(), kThread)->tran_state, 'f') << "the service runs";
    EXPECT_EQ(collector.read_all().size(), counts->sent);
    EXPECT_EQ(end({}), 0);
  }));
  EXPECT_EQ(counts->sent + counts->refused, 4U * 2000);
  EXPECT_EQ(collector.que_info().que_fail_cnt[0], counts->refused + 1);
}

TEST_F(OneQueue, WhenRemovedCountsAsFailedUntilItComesBackUnderItsKey) {
  EXPECT_TRUE(collector.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    collector.object(kTranLogfMsgqKey).remove();
    for (int i = 0; i < 5; ++i) EXPECT_EQ(send("lost"), TRAN_RC_NOT_SENT);
    collector.object(kTranLogfMsgqKey).replace();
    std::uint32_t lost = 5;
    EXPECT_TRUE(wait_until([&] { return send("after") == 0 || ++lost == 0; }, 2500ms));
    EXPECT_EQ(collector.que_info().que_fail_cnt[0], lost);
    EXPECT_EQ(types_of(collector.read_all()), "I");
    collector.object(kTranLogfMsgqKey).remove();
  }));
}

TEST_F(OneQueue, HasTheRecordsOfEveryThreadWithTheirOwnTexts) {
  const auto records = trace([] {
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
  });
  for (const Record& record : records) {
    const std::string name = "thread-" + std::to_string(std::stoi(text_of(record, kTid)));
    const std::string message = type_of(record) == 'I' ? body_field(record, "message") : name;
    EXPECT_EQ(text_of(record, kGid) + text_of(record, kSvcId) + message, name + name + name);
  }
  EXPECT_EQ(records.size() + collector.que_info().que_fail_cnt[0], 4U * 100 * 3);
}

}  // namespace
}  // namespace varn::test
