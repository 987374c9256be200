// A fence of which the frequent side pays nothing.
//
// One side stores a mark ("I am inside") and then reads a switch; the other changes the switch and
// then reads the mark. Each must see the other's store. The frequent side uses light_fence(), which
// only stops the compiler; the rare side uses heavy_fence(), which makes every processor that runs
// a thread of this process pass a full fence.
#pragma once

#include <atomic>

namespace varn {

inline void light_fence() { std::atomic_signal_fence(std::memory_order_seq_cst); }

// Asks the kernel for heavy fences, once a process; without it heavy_fence() pauses instead, far
// longer than a store takes to become visible.
void prepare_heavy_fence();
void heavy_fence();

}  // namespace varn
