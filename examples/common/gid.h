// Global transaction ids.
#pragma once

#include <string>

namespace example {

// Date (8), time to the millisecond (9), system (3), host (4) and a sequence number (6).
std::string new_gid(const char* system);

}  // namespace example
