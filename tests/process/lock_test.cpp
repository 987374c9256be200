// The process-thread table's semaphore in the hands of others: a holder that stops, dies, or takes
// the semaphore with it must not stop the traced process.
#include <signal.h>
#include <sys/sem.h>

#include <chrono>
#include <thread>

#include "process/calls.h"

namespace varn::test {
namespace {

struct TableSemaphore : testing::Test {
  void step(short by) const {
    sembuf op = {0, by, SEM_UNDO};
    ASSERT_EQ(semop(collector_.ptrc_semid(), &op, 1), 0);
  }
  int ask(int command) const { return semctl(collector_.ptrc_semid(), 0, command); }
  static double seconds_of(const std::function<void()>& body) {
    const auto begun = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
  }
  FakeCollector collector_;
};

TEST_F(TableSemaphore, AStoppedHolderCostsTwoSecondsThenNothingForASecondAndADeadOneGivesItBack) {
  EXPECT_TRUE(collector_.run([&] {
    ASSERT_EQ(TRAN_INIT(), 0);
    const auto holder = collector_.start([this] {
      step(-1);
      pause();
    });
    ASSERT_TRUE(wait_until([this] { return ask(GETVAL) == 0; }));
    holder->kill(SIGSTOP);
    EXPECT_NEAR(seconds_of([] { EXPECT_EQ(event(2), 116); }), 3.4, 1.6);
    EXPECT_LT(seconds_of([] {
                for (int tid = 3; tid < 50; ++tid) EXPECT_EQ(event(tid), 116) << tid;
                EXPECT_TRUE(is_sent(event(0))) << "a thread that has its context needs no lock";
              }),
              0.9);
    std::thread waiting([] { EXPECT_TRUE(wait_until([] { return is_sent(event(2)); })); });
    EXPECT_TRUE(wait_until([this] { return ask(GETNCNT) == 1; })) << "it is tried again";
    holder->kill(SIGKILL);
    waiting.join();
  }));
  EXPECT_EQ(collector_.count_logged("semaphore"), 1) << "told once, and the second wait succeeds";
}

TEST_F(TableSemaphore, AStartAndAReleaseWaitNoLongerAndARemovedOneIsNotWaitedFor) {
  EXPECT_TRUE(collector_.run([&] {
    step(-1);
    EXPECT_LT(seconds_of([] { EXPECT_EQ(TRAN_INIT(), 116); }), 5.0);
    expect_everything_returns(103);
    step(1);
    EXPECT_TRUE(wait_until([] { return TRAN_INIT() == 0; }));
    step(-1);
    EXPECT_LT(seconds_of([] { EXPECT_EQ(TRAN_DONE(), 0); }), 5.0);
    step(1);
    EXPECT_TRUE(wait_until([] { return TRAN_INIT() == 0; }));
    ASSERT_EQ(ask(IPC_RMID), 0);
    EXPECT_LT(seconds_of([] { EXPECT_EQ(event(2), 116); }), 1.0);
    EXPECT_TRUE(is_sent(event(0)));
    EXPECT_EQ(TRAN_DONE(), 0);
  }));
}

}  // namespace
}  // namespace varn::test
