// Counts what calls cost that timing does not show: a thread's heap allocations, seen by functions
// of the program's own in front of the allocator's, and its system calls, seen by its parent.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "support/support.h"

namespace varn::test {

struct CountedCase {
  const char* name;
  int records;  // that it sends, or tries to
  void (*run)();
  int allocations = 0;
};

// A traced process prepares, runs each case to warm up, and once more to be counted. The checks: no
// system call but a msgsnd for each record, no other allocation than the case says, nothing freed.
void expect_costs(FakeCollector& collector, const std::function<void()>& prepare,
                  const std::vector<CountedCase>& cases);

}  // namespace varn::test
