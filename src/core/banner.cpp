#include "core/banner.h"

#include <unistd.h>

#include "util/console.h"

namespace varn {
namespace {

// clang-format off
constexpr char kBanner[] =
    "#################################################################################\n"
    "##                 ___                         _                               ##\n"
    "##                / _ \\   _   _    ___    _ __| |   ___   _ __                 ##\n"
    "##               | | | | | | | |  / _ \\  | '__| |  / _ \\ | '_ \\                ##\n"
    "##               | |_| | | |_| | | (_) | | |  | | |  __/ | | | |               ##\n"
    "##                \\__\\_\\  \\__,_|  \\___/  |_|  |_|  \\___| |_| |_|               ##\n"
    "##                                                                    ver 8.0  ##\n"
    "#################################################################################\n";
// clang-format on
static_assert(sizeof kBanner == 8 * 82 + 1, "eight lines of 81 characters");

}  // namespace

void show_banner() {
  if (!console_is_off()) console_write(STDOUT_FILENO, kBanner);
}

}  // namespace varn
