// What a collection came to, as text.
#pragma once

#include <string>

#include "collector/stats.h"

namespace varn {

// `queues`: how many were read. Failed sends are those between the two moments, and all up to the
// second.
std::string summary_text(const Stats& stats, std::size_t queues, const FailCounts& fails_at_start,
                         const FailCounts& fails_at_end);

}  // namespace varn
