// A transaction as an indented tree, with times in columns.
#pragma once

#include <string>

#include "collector/tree.h"

namespace varn {

// Lines, each with its newline.
std::string tree_text(const TraceTree& tree);

}  // namespace varn
