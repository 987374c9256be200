#include "util/append_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace varn {
namespace {

int away_from_console(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(fd);
  return moved;
}

// The process's file-creation mask is the host's: changing it, even for a moment, would show in
// files that other threads create. So a file that is new gets its permissions afterwards.
int open_or_create(const char* path, unsigned mask) {
  for (int tries = 0; tries < 2; ++tries) {
    int fd = open(path, O_RDWR | O_APPEND | O_CLOEXEC);
    if (fd >= 0 || errno != ENOENT) return fd;
    fd = open(path, O_RDWR | O_APPEND | O_CLOEXEC | O_CREAT | O_EXCL, 0666);
    if (fd >= 0) {
      fchmod(fd, 0666 & ~mask);
      return fd;
    }
    if (errno != EEXIST) return -1;
  }
  return -1;
}

}  // namespace

int open_appending(const char* path, unsigned mask) {
  return away_from_console(open_or_create(path, mask));
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
