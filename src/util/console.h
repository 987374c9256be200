// Whether the library may write to its host's console: VARN_CONSOLE=off keeps it clean.
#pragma once

namespace varn {

// The setting of the last look, which the first call makes by itself.
bool console_is_off();

// Looks at the environment again.
void read_console_setting();

}  // namespace varn
