// The host's console. VARN_CONSOLE=off keeps it clean.
#pragma once

#include <string_view>

namespace varn {

// The setting of the last look, which the first call makes by itself.
bool console_is_off();

// Looks at the environment again.
void read_console_setting();

// Writes a text to standard output or standard error, past the host's streams: nothing of it stays
// in a buffer for a forked child to write again, and a closed reader does not end the host.
void console_write(int fd, std::string_view text);

// The same of a formatted text of up to 1,023 bytes.
[[gnu::format(printf, 2, 3)]] void console_printf(int fd, const char* format, ...);

}  // namespace varn
