#include "util/console.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/quiet_write.h"

namespace varn {

std::atomic<ConsoleSetting> console_setting{ConsoleSetting::kUnread};

void read_console_setting() {
  const char* const value = secure_getenv("VARN_CONSOLE");
  const bool off = value != nullptr && std::strcmp(value, "off") == 0;
  console_setting.store(off ? ConsoleSetting::kOff : ConsoleSetting::kOn,
                        std::memory_order_relaxed);
}

// A reader that has stopped reading does not stop the host: what finds no room is dropped.
void console_write(int fd, std::string_view text) {
  pollfd console = {fd, POLLOUT, 0};
  while (!text.empty() && poll(&console, 1, 0) == 1) {
    // As much as a pipe that has room takes at once.
    const std::size_t size = std::min<std::size_t>(text.size(), PIPE_BUF);
    const ssize_t written = write_quietly(fd, text.data(), size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

void console_printf(int fd, const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  const int size = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (size > 0)
    console_write(fd, {text, std::min(static_cast<std::size_t>(size), sizeof text - 1)});
}

}  // namespace varn
