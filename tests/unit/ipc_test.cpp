#include <pthread.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
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

class Ipc : public testing::Test {
 protected:
  static constexpr key_t kKey = 0x5eed;

  // Signals interrupt system calls, as they do in hosts that ask for it.
  void SetUp() override {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    sigaction(SIGALRM, &action, nullptr);
  }

  mode_t mode_of(int msqid) const {
    msqid_ds settings;
    return msgctl(msqid, IPC_STAT, &settings) < 0 ? 0 : settings.msg_perm.mode & 0777;
  }

  IpcObject queue_{IpcKind::kQueue, kKey, 0, 0666};
  IpcObject sem_{IpcKind::kSemaphore, kKey, 0, 0666};
};

TEST_F(Ipc, NothingIsCreated) {
  EXPECT_EQ(create_msgq(kKey), queue_.id());
  EXPECT_EQ(create_sem(kKey, 1), sem_.id());
  EXPECT_EQ(create_msgq(kKey + 1), -1);
  EXPECT_EQ(create_sem(kKey + 1, 1), -1);
}

TEST_F(Ipc, MessagesArriveByType) {
  const Note first = {1, "first"};
  const Note second = {2, "second"};
  ASSERT_EQ(send_msgq(queue_.id(), &first, sizeof first.text), 0);
  ASSERT_EQ(send_msgq(queue_.id(), &second, sizeof second.text), 0);
  EXPECT_EQ(get_msgq_num(queue_.id()), 2);
  Note got;
  EXPECT_EQ(read_msgq(queue_.id(), 2, &got, sizeof got.text, true), long{sizeof got.text});
  EXPECT_STREQ(got.text, "second");
  EXPECT_EQ(read_msgq(queue_.id(), 0, &got, sizeof got.text, true), long{sizeof got.text});
  EXPECT_STREQ(got.text, "first");
  EXPECT_EQ(read_msgq(queue_.id(), 0, &got, sizeof got.text, true), -1);
}

TEST_F(Ipc, AFullQueueRefusesAtOnce) {
  const Note note = {1, ""};
  msqid_ds settings;
  ASSERT_EQ(msgctl(queue_.id(), IPC_STAT, &settings), 0);
  settings.msg_qbytes = 3 * sizeof note.text;
  ASSERT_EQ(msgctl(queue_.id(), IPC_SET, &settings), 0);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(send_msgq(queue_.id(), &note, sizeof note.text), 0);
  EXPECT_EQ(send_msgq(queue_.id(), &note, sizeof note.text), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(get_msgq_num(queue_.id()), 3);
}

TEST_F(Ipc, ARemovedQueueIsReportedNotWaitedFor) {
  EXPECT_EQ(remove_msgq(queue_.id()), 0);
  EXPECT_LT(get_msgq_num(queue_.id()), 0);
  EXPECT_EQ(remove_msgq(queue_.id()), -1);
  EXPECT_EQ(change_mode_msgq(queue_.id(), "600"), -1);
  const Note note = {1, ""};
  EXPECT_EQ(send_msgq(queue_.id(), &note, sizeof note.text), -1);
}

TEST_F(Ipc, ModesAreOctalTexts) {
  EXPECT_EQ(change_mode_msgq(queue_.id(), "600"), 0);
  EXPECT_EQ(mode_of(queue_.id()), 0600U);
  for (const char* bad : {"", "68", "rw", "1777"}) {
    EXPECT_EQ(change_mode_msgq(queue_.id(), bad), -1) << bad;
    EXPECT_EQ(mode_of(queue_.id()), 0600U) << bad;
  }
  EXPECT_EQ(change_mode_msgq(queue_.id(), "0660"), 0);
  EXPECT_EQ(mode_of(queue_.id()), 0660U);
}

TEST_F(Ipc, SemaphoreMembersTakeValues) {
  EXPECT_EQ(init_sem_val(sem_.id(), 0, 3), 1);
  EXPECT_EQ(semctl(sem_.id(), 0, GETVAL), 3);
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
  const Note note = {1, "at last"};
  Note got = {};
  const struct {
    const char* name;
    int before;  // value of the semaphore
    std::function<bool()> wait;
    std::function<void()> release;
  } cases[] = {
      {"read_msgq", 1,
       [&] { return read_msgq(queue_.id(), 0, &got, sizeof got.text, false) == sizeof got.text; },
       [&] { send_msgq(queue_.id(), &note, sizeof note.text); }},
      {"sem_lock", 0, [&] { return sem_lock(sem_.id(), 0, 0) == 0; },
       [&] { sem_unlock(sem_.id(), 0, 0); }},
      {"sem_wait", 1, [&] { return sem_wait(sem_.id(), 0) == 0; },
       [&] { sem_lock(sem_.id(), 0, 0); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    init_sem_val(sem_.id(), 0, c.before);
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = c.wait() ? 1 : 0; });
    int signals = 0;
    EXPECT_TRUE(wait_until([&] {
      if (result < 0) pthread_kill(waiter.native_handle(), SIGUSR1);
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
  for (const bool interrupted : {false, true}) {
    SCOPED_TRACE(interrupted ? "interrupted" : "left alone");
    ChildProcess child([&] {
      const itimerval every_5_ms = {{0, 5000}, {0, 5000}};
      if (interrupted) setitimer(ITIMER_REAL, &every_5_ms, nullptr);
      const auto begun = std::chrono::steady_clock::now();
      EXPECT_EQ(sem_lock_within(sem_.id(), 0, SEM_UNDO, 100), -1);
      EXPECT_EQ(errno, EAGAIN);
      EXPECT_GE(std::chrono::steady_clock::now() - begun, 95ms);
    });
    EXPECT_TRUE(child.wait(5s));
  }
  ASSERT_EQ(sem_unlock(sem_.id(), 0, SEM_UNDO), 0);
  EXPECT_EQ(sem_lock_within(sem_.id(), 0, SEM_UNDO, 100), 0);
}

TEST_F(Ipc, AKilledHolderGivesTheLockBack) {
  ChildProcess holder([&] {
    sem_lock(sem_.id(), 0, SEM_UNDO);
    pause();
  });
  ASSERT_TRUE(wait_until([&] { return semctl(sem_.id(), 0, GETVAL) == 0; }));
  holder.kill(SIGKILL);
  EXPECT_EQ(sem_lock_within(sem_.id(), 0, SEM_UNDO, 10'000), 0);
  EXPECT_TRUE(holder.killed_by(SIGKILL));
}

}  // namespace
}  // namespace varn::test
