// The start-up banner on the host's console.
#pragma once

namespace varn {

void show_banner();  // nothing with VARN_CONSOLE=off

}  // namespace varn
