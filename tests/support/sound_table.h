// What holds of the process-thread table whatever has been done to it in an orderly way.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "layout/ptrc_hash_tbl.h"

namespace varn::test {

// Each number is on one stack at most, and in one chain at most; what is linked is not free. A
// process that died while it held a number keeps it: those are the lost ones.
testing::AssertionResult is_sound(const PTRC_HASH_TBL& table, std::uint32_t deaths = 0);

}  // namespace varn::test
