// The process-thread table's semaphore in the hands of others: a holder that stops, dies, or takes
// the semaphore with it must not stop the traced process.
#include <signal.h>
#include <sys/sem.h>

#include <chrono>

#include "process/calls.h"

namespace varn::test {
namespace {

class TableSemaphore : public testing::Test {
 protected:
  void step(short by) const {
    sembuf op = {0, by, SEM_UNDO};
    ASSERT_EQ(semop(collector_.ptrc_semid(), &op, 1), 0);
  }
  static double seconds_of(const std::function<void()>& body) {
    const auto begun = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
  }
  // Another process that holds it.
  std::unique_ptr<ChildProcess> holder() {
    auto child = collector_.start([this] {
      step(-1);
      pause();
    });
    EXPECT_TRUE(wait_until([this] { return semctl(collector_.ptrc_semid(), 0, GETVAL) == 0; }));
    return child;
  }

  FakeCollector collector_;
};

TEST_F(TableSemaphore, AStoppedHolderCostsTwoSecondsAndThenNothingForASecond) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    ASSERT_TRUE(is_sent(event(1)));
    const auto stopped = holder();
    stopped->kill(SIGSTOP);
    const double waited = seconds_of([] { EXPECT_EQ(event(2), 116); });
    EXPECT_GT(waited, 1.8);
    EXPECT_LT(waited, 5.0);
    EXPECT_LT(seconds_of([] {
                for (int tid = 3; tid < 50; ++tid) EXPECT_EQ(event(tid), 116) << tid;
                EXPECT_TRUE(is_sent(event(1))) << "a thread that has its context needs no lock";
              }),
              0.9);
    stopped->kill(SIGKILL);
    EXPECT_TRUE(wait_until([] { return is_sent(event(2)); }));
    EXPECT_TRUE(is_sent(event(3)));
  }));
  EXPECT_EQ(collector_.count_logged("semaphore"), 1) << "told once";
}

TEST_F(TableSemaphore, AStartMeetsABoundToo) {
  EXPECT_TRUE(collector_.run([&] {
    step(-1);
    EXPECT_LT(seconds_of([] { EXPECT_EQ(TRAN_INIT(), 116); }), 5.0);
    expect_everything_returns(103);
    step(1);
    EXPECT_TRUE(wait_until([] { return TRAN_INIT() == 0; }));
    step(-1);
    EXPECT_LT(seconds_of([] { EXPECT_EQ(TRAN_DONE(), 0); }), 5.0) << "and so does a release";
  }));
}

TEST_F(TableSemaphore, AKilledHolderGivesItBack) {
  const auto killed = holder();
  const auto traced = collector_.start([] {
    EXPECT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(event(2)));
  });
  EXPECT_TRUE(wait_until([this] { return semctl(collector_.ptrc_semid(), 0, GETNCNT) == 1; }))
      << "the traced process waits for it";
  killed->kill(SIGKILL);
  EXPECT_TRUE(traced->wait());
}

TEST_F(TableSemaphore, OneThatIsRemovedIsAnErrorNotAWait) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    ASSERT_EQ(semctl(collector_.ptrc_semid(), 0, IPC_RMID), 0);
    EXPECT_LT(seconds_of([] { EXPECT_EQ(event(2), 116); }), 1.0);
    EXPECT_TRUE(is_sent(event(0)));
    EXPECT_EQ(TRAN_DONE(), 0);
  }));
}

}  // namespace
}  // namespace varn::test
