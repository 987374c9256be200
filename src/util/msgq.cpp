#include "util/msgq.h"

#include <sys/msg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace varn {

int create_msgq(key_t key) { return msgget(key, 0666); }

int send_msgq(int msqid, const void* message, std::size_t text_size) {
  // Not msgsnd(): that is a point where the host's thread may be cancelled, inside a traced call.
  return static_cast<int>(syscall(SYS_msgsnd, msqid, message, text_size, IPC_NOWAIT));
}

long read_msgq(int msqid, long type, void* message, std::size_t text_size, bool no_wait) {
  for (;;) {
    const ssize_t n = msgrcv(msqid, message, text_size, type, no_wait ? IPC_NOWAIT : 0);
    if (n >= 0 || errno != EINTR) return n;
  }
}

int remove_msgq(int msqid) { return msgctl(msqid, IPC_RMID, nullptr); }

int change_mode_msgq(int msqid, const char* mode) {
  char* end = nullptr;
  const unsigned long bits = std::strtoul(mode, &end, 8);
  if (end == mode || *end != '\0' || bits > 0777) return -1;
  msqid_ds settings = {};
  if (msgctl(msqid, IPC_STAT, &settings) < 0) return -1;
  settings.msg_perm.mode = static_cast<unsigned short>((settings.msg_perm.mode & ~0777U) | bits);
  return msgctl(msqid, IPC_SET, &settings);
}

long get_msgq_num(int msqid) {
  msqid_ds settings = {};
  const int rc = msgctl(msqid, IPC_STAT, &settings);
  return rc < 0 ? rc : static_cast<long>(settings.msg_qnum);
}

}  // namespace varn
