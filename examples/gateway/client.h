// A channel that sends telegrams to the gateway and looks at every answer.
#pragma once

#include <cstdint>

namespace gateway {

// Sends so many requests over several connections, then what is broken. Says in one line what came
// back. True when every answer was what it should be.
bool send_all(std::uint16_t port, int requests);

}  // namespace gateway
