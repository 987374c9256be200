// Writing where the host's signals must not learn of it.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace varn {

// write(2), at which neither a closed reader nor a limit on the file's size raises a signal: they
// end a process that has not asked for them. Both are errors all the same, EPIPE and EFBIG.
ssize_t write_quietly(int fd, const void* bytes, std::size_t size);

}  // namespace varn
