#include "util/console.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace varn {
namespace {

enum Setting : int { kUnread, kOn, kOff };

// Kept, since the environment may be changed by another thread while it is read.
std::atomic<int> setting{kUnread};

}  // namespace

bool console_is_off() {
  if (setting.load(std::memory_order_relaxed) == kUnread) read_console_setting();
  return setting.load(std::memory_order_relaxed) == kOff;
}

void read_console_setting() {
  const char* const value = secure_getenv("VARN_CONSOLE");
  const bool off = value != nullptr && std::strcmp(value, "off") == 0;
  setting.store(off ? kOff : kOn, std::memory_order_relaxed);
}

}  // namespace varn
