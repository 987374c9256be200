// Local time, as a host that forks needs it: the C library's own lock would be held for ever in a
// child that is forked while another thread is inside.
#pragma once

#include <ctime>

namespace varn {

// Has forks wait for local_time() in other threads. Once a process; false when there is no memory.
bool prepare_local_time();

// No handler of the host's runs inside, since it might fork, or leave by a jump.
struct tm local_time(time_t second);

}  // namespace varn
