// How fast queued telegrams get into their file.
#pragma once

#include <optional>

#include "bench/stage.h"

namespace varn::bench {

// Nanoseconds a record that the library's writer takes for so many queued telegrams; nothing when
// it was done before it could be watched. Throws when telegrams get lost.
std::optional<double> drain_ns(Stage& stage, int telegrams);

// Nanoseconds a record of a bare loop of fwrite and fflush, in a file of the same directory.
double bare_write_ns(const Stage& stage, int records);

}  // namespace varn::bench
