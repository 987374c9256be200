// A file that is only appended to, in a process whose descriptors, file-creation mask and console
// are the host's.
#pragma once

#include <sys/types.h>

#include <atomic>

namespace varn {

// One thread at a time opens, replaces and closes it; any may write.
struct AppendFile {
  std::atomic<int> fd{-1};
  std::atomic<dev_t> device{0};  // of the file that was opened
  std::atomic<ino_t> inode{0};
};

// Whose file it may be: one that the users of a host share, or only their own and root's.
enum class Owner { kAnybody, kSelf };

// A descriptor for appending to the file, which if new gets the permissions 0666 less `mask`; or -1
// with errno. It is 500 or higher where the host's limit lets it, and never one of the three
// numbers that the console has or may have again. Anything but a plain file is refused.
int open_appending(const char* path, unsigned mask, Owner owner);

// Which file the descriptor is for, to be asked of is_still_ours() later.
void remember_file(AppendFile& file, int fd);

// A host that closes descriptors it does not know, as daemons do, may have the number in use for a
// file of its own: then it is no longer ours.
bool is_still_ours(const AppendFile& file, int fd);

void close_file(AppendFile& file);

}  // namespace varn
