// Function names as people write them, short enough for a call's record.
#ifndef VARN_TOOLS_FUNCTIONS_FUNCTION_NAME_H
#define VARN_TOOLS_FUNCTIONS_FUNCTION_NAME_H

#include <cstddef>

namespace varn {

inline constexpr std::size_t kMostNameBytes = 70;

struct FunctionName {
  char text[kMostNameBytes + 1];  // zero-ended
};

// A C++ name comes without its return type and parameters: "shop::Cart<int>::add". Where that is
// still too long, it comes without its template's arguments: "shop::Cart<>::add"; and then with the
// end of it alone: "...::add".
FunctionName function_name(const char* symbol);

}  // namespace varn

#endif
