#include "util/append_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "util/errno_guard.h"

namespace varn {
namespace {

// Numbers that a host closes or hands out blindly are the low ones.
constexpr int kOutOfTheWay = 500;

int out_of_the_way(int fd) {
  if (fd < 0 || fd >= kOutOfTheWay) return fd;
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, kOutOfTheWay);
  if (moved < 0 && fd > STDERR_FILENO) return fd;
  if (moved < 0) moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(fd);
  return moved;
}

// What somebody else may have put in the file's place is not written to: a device or a pipe would
// hold the host up, a link would lead to a file of another's. Both are refused with EPERM.
bool is_plain_file(int fd, Owner owner) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) return false;
  const bool is_owned =
      owner == Owner::kAnybody || status.st_uid == geteuid() || status.st_uid == 0;
  if (S_ISREG(status.st_mode) && status.st_nlink == 1 && is_owned) return true;
  errno = EPERM;
  return false;
}

// The process's file-creation mask is the host's: changing it, even for a moment, would show in
// files that other threads create. So a file that is new gets its permissions afterwards.
int open_or_create(const char* path, unsigned mask) {
  constexpr int kFlags = O_RDWR | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  for (int tries = 0; tries < 2; ++tries) {
    int fd = open(path, kFlags);
    if (fd >= 0 || errno != ENOENT) return fd;
    fd = open(path, kFlags | O_CREAT | O_EXCL, 0666);
    if (fd >= 0) {
      fchmod(fd, 0666 & ~mask);
      return fd;
    }
    if (errno != EEXIST) return -1;
  }
  return -1;
}

}  // namespace

int open_appending(const char* path, unsigned mask, Owner owner) {
  const int fd = open_or_create(path, mask);
  if (fd >= 0 && !is_plain_file(fd, owner)) {
    const ErrnoGuard errno_kept;
    close(fd);
    return -1;
  }
  return out_of_the_way(fd);
}

void remember_file(AppendFile& file, int fd) {
  struct stat status = {};
  fstat(fd, &status);
  file.device.store(status.st_dev);
  file.inode.store(status.st_ino);
}

bool is_still_ours(const AppendFile& file, int fd) {
  struct stat status = {};
  return fd >= 0 && fstat(fd, &status) == 0 && status.st_dev == file.device.load() &&
         status.st_ino == file.inode.load();
}

void close_file(AppendFile& file) {
  const int fd = file.fd.exchange(-1);
  if (is_still_ours(file, fd)) close(fd);
}

}  // namespace varn
