#include <pthread.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

#include "support/support.h"
#include "util/msgq.h"
#include "util/sem.h"

namespace varn::test {
namespace {

struct Note {
  long type;
  char text[16];
};
constexpr long kSize = sizeof Note::text;

class Ipc : public testing::Test {
 protected:
  static constexpr key_t kKey = 0x5eed;

  Ipc() {
    signal(SIGALRM, [](int) {});
  }  // which interrupts these system calls
  int send(const Note& note) { return send_msgq(queue_.id(), &note, kSize); }
  long read(long type, bool at_once) { return read_msgq(queue_.id(), type, &got_, kSize, at_once); }
  msqid_ds settings() const {
    msqid_ds settings;
    return msgctl(queue_.id(), IPC_STAT, &settings) < 0 ? msqid_ds{} : settings;
  }

  IpcObject queue_{IpcKind::kQueue, kKey, 0, 0666};
  IpcObject sem_{IpcKind::kSemaphore, kKey, 0, 0666};
  Note got_ = {};
};

TEST_F(Ipc, MessagesArriveByTypeUntilTheQueueIsFullOrGone) {
  EXPECT_EQ(create_msgq(kKey), queue_.id());
  EXPECT_EQ(create_msgq(kKey + 1), -1) << "nothing is created";
  msqid_ds narrow = settings();
  narrow.msg_qbytes = 2 * kSize;
  ASSERT_EQ(msgctl(queue_.id(), IPC_SET, &narrow), 0);
  EXPECT_EQ(send({1, "first"}), 0);
  EXPECT_EQ(send({2, "second"}), 0);
  EXPECT_EQ(send({3, "third"}), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(get_msgq_num(queue_.id()), 2);
  EXPECT_EQ(read(2, true), kSize);
  EXPECT_STREQ(got_.text, "second");
  EXPECT_EQ(read(0, true), kSize);
  EXPECT_STREQ(got_.text, "first");
  EXPECT_EQ(read(0, true), -1);
  EXPECT_EQ(remove_msgq(queue_.id()), 0);
  EXPECT_EQ(remove_msgq(queue_.id()), -1);
  EXPECT_EQ(send({1, ""}), -1);
  EXPECT_LT(get_msgq_num(queue_.id()), 0);
}

TEST_F(Ipc, ModesAreOctalTexts) {
  ASSERT_EQ(change_mode_msgq(queue_.id(), "0660"), 0);
  for (const char* text : {"", "68", "rw", "1777"}) {
    EXPECT_EQ(change_mode_msgq(queue_.id(), text), -1) << text;
    EXPECT_EQ(settings().msg_perm.mode & 0777, 0660) << text;
  }
}

TEST_F(Ipc, SemaphoreMembersTakeValues) {
  EXPECT_EQ(create_sem(kKey, 1), sem_.id());
  EXPECT_EQ(create_sem(kKey + 1, 1), -1) << "nothing is created";
  EXPECT_EQ(init_sem_val(sem_.id(), 0, 3), 1);
  EXPECT_EQ(init_sem_val(sem_.id(), 1, 0), -1) << "no such member";
  EXPECT_EQ(sem_lock(sem_.id(), 0, SEM_UNDO), 0);
  EXPECT_EQ(semctl(sem_.id(), 0, GETVAL), 2);
  EXPECT_EQ(sem_unlock(sem_.id(), 0, SEM_UNDO), 0);
  EXPECT_EQ(semctl(sem_.id(), 0, GETVAL), 3);
  sem_.remove();
  EXPECT_EQ(sem_lock(sem_.id(), 0, 0), -1);
  EXPECT_NE(sem_wait(sem_.id(), 0), 0);
}

TEST_F(Ipc, InterruptedWaitsGoOn) {
  const struct {
    int before;  // value of the semaphore
    std::function<bool()> wait;
    std::function<int()> release;
  } cases[] = {
      {0, [&] { return read(0, false) == kSize; },
       [&] {
         return send({1, "at last"});
       }},
      {0, [&] { return sem_lock(sem_.id(), 0, 0) == 0; },
       [&] { return sem_unlock(sem_.id(), 0, 0); }},
      {1, [&] { return sem_wait(sem_.id(), 0) == 0; }, [&] { return sem_lock(sem_.id(), 0, 0); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    init_sem_val(sem_.id(), 0, c.before);
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = c.wait() ? 1 : 0; });
    int signals = 0;
    EXPECT_TRUE(wait_until([&] {
      if (result < 0) pthread_kill(waiter.native_handle(), SIGALRM);
      return ++signals == 50 || result >= 0;
    }));
    EXPECT_EQ(result, -1) << "gave up when interrupted";
    c.release();
    waiter.join();
    EXPECT_EQ(result, 1);
  }
}

TEST_F(Ipc, ABoundedWaitGivesUpInTimeAlsoWhenInterruptedAgainAndAgain) {
  ASSERT_EQ(sem_lock(sem_.id(), 0, SEM_UNDO), 0);
  ChildProcess child([&] {
    const itimerval every_5_ms = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &every_5_ms, nullptr);
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(sem_lock_within(sem_.id(), 0, SEM_UNDO, 100), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, 95ms);
  });
  EXPECT_TRUE(child.wait(5s));
  ASSERT_EQ(sem_unlock(sem_.id(), 0, SEM_UNDO), 0);
  EXPECT_EQ(sem_lock_within(sem_.id(), 0, SEM_UNDO, 100), 0);
}

}  // namespace
}  // namespace varn::test
