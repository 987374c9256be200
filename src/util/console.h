// The host's console. VARN_CONSOLE=off keeps it clean.
#pragma once

#include <atomic>
#include <string_view>

namespace varn {

enum class ConsoleSetting { kUnread, kOn, kOff };

// Kept, since the environment may be changed by another thread while it is read.
extern std::atomic<ConsoleSetting> console_setting;

// Looks at the environment again.
void read_console_setting();

// The setting of the last look, which the first call makes by itself.
inline bool console_is_off() {
  const ConsoleSetting setting = console_setting.load(std::memory_order_relaxed);
  if (setting != ConsoleSetting::kUnread) [[likely]]
    return setting == ConsoleSetting::kOff;
  read_console_setting();
  return console_setting.load(std::memory_order_relaxed) == ConsoleSetting::kOff;
}

// Writes a text to standard output or standard error, past the host's streams: nothing of it stays
// in a buffer for a forked child to write again, and a closed reader does not end the host.
void console_write(int fd, std::string_view text);

// The same of a formatted text of up to 1,023 bytes.
[[gnu::format(printf, 2, 3)]] void console_printf(int fd, const char* format, ...);

}  // namespace varn
