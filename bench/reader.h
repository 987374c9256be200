// The collector's side in a process of its own, which reads the queues and throws the records away.
#pragma once

#include <sys/types.h>

#include <vector>

#include "collector/drain.h"

namespace varn::bench {

class Reader {
 public:
  Reader(const std::vector<int>& msgq_ids, int cpu);  // forks: to be made before threads are
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Both return when it is done; a stopped reader has left empty queues.
  void start(Waiting waiting);
  void stop();

 private:
  void ask(char command);

  int socket_ = -1;
  pid_t pid_ = -1;
};

}  // namespace varn::bench
