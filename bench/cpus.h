// Where the benchmarks' threads run. Left to the scheduler, the reader lands now beside a sender,
// now on its processor, and a send costs up to twice as much in one case as in the other.
#pragma once

#include <sched.h>

#include <cstddef>
#include <vector>

namespace varn::bench {

// Processors that this process may use.
inline std::vector<int> usable_cpus() {
  cpu_set_t set;
  sched_getaffinity(0, sizeof set, &set);
  std::vector<int> cpus;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
    if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
  return cpus;
}

// The calling thread, and those that it starts.
inline void run_on(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}

}  // namespace varn::bench
