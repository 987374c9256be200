// Stands between the library and the functions that it imports: what the library calls, and only
// that, can be counted, made to fail, or interrupted at a chosen place.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "support/support.h"

namespace varn::test {

// The thread sanitizer ends a child of a process with threads that starts a thread.
inline constexpr bool kMayFork = !kIsThreadSanitized;

enum class Kind {
  kPlain,
  kReleases,  // is carried out even when it is said to have failed
  kReturns,   // returns its error number
  kEnds,      // both
  kAllocates,
  kFrees,    // cannot fail
  kCertain,  // cannot fail, but a place to be called at
  kQuiet,    // cannot fail but for a wrong result, and sets no errno
  kStale,    // fails for a descriptor that the host has closed
};

struct Import {
  std::string_view name;
  Kind kind;
  long failed;             // what a failure returns, but for kReturns and kEnds
  int error;               // and the error number most likely then
  bool only_this = false;  // no other one is possible
};

// The imports that can fail, or that a test wants to be called at.
std::span<const Import> imports();

// Redirects the library's imports, once in a process and before its first thread. Returns those
// that are neither in the list above nor in the reviewed one of functions that cannot fail.
std::vector<std::string_view> redirect_imports();

bool is_imported(std::size_t import);

// The library's exported functions of C programs.
std::vector<std::string_view> exported_names();

// Called before each call of an import, with its place in the list: 0, or the error number that it
// is to fail with. errno is kept around it. Null: nothing is called.
using OnImport = int (*)(std::size_t import);
void set_on_import(OnImport on_import);

// Blocks that the library has allocated and not freed.
long allocations_left();

}  // namespace varn::test
