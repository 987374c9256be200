#include "util/fence.h"

#include <linux/membarrier.h>
#include <sys/single_threaded.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace varn {

void prepare_heavy_fence() {
  syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0);
}

void heavy_fence() {
  if (__libc_single_threaded) return;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) != 0) usleep(1000);
}

}  // namespace varn
