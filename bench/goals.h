// What the library promises of its speed: each path beside the work that it cannot do without.
#pragma once

#include <vector>

namespace varn::bench {

// Runs the benchmarks that bench/compare judges: batches of a row and of its floor in turn. Each
// repetition has the counters "ns" and "floor_ns", a call's cost on either side. Returns the
// program's exit status.
int run_goals(const std::vector<int>& cpus);

}  // namespace varn::bench
