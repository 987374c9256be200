#include "bench/reader.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <system_error>
#include <vector>

#include "bench/cpus.h"

namespace varn::bench {
namespace {

constexpr char kStop = 's';

char start_command(Waiting waiting) { return static_cast<char>('0' + static_cast<int>(waiting)); }

// Until the other end is closed.
void serve(int socket, const std::vector<int>& msgq_ids) {
  std::optional<Drain> drain;
  for (char command = 0; read(socket, &command, 1) == 1;) {
    drain.reset();
    if (command != kStop) {
      DrainOptions options;
      options.waiting = static_cast<Waiting>(command - '0');
      drain.emplace(
          msgq_ids, [](std::span<const RawRecord>) {}, options);
    }
    if (write(socket, &command, 1) != 1) return;
  }
}

}  // namespace

Reader::Reader(const std::vector<int>& msgq_ids, int cpu) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 || (pid_ = fork()) < 0)
    throw std::system_error(errno, std::generic_category(), "no process for the reader");
  if (pid_ == 0) {
    close(ends[0]);
    run_on(cpu);
    serve(ends[1], msgq_ids);
    _exit(0);
  }
  close(ends[1]);
  socket_ = ends[0];
}

Reader::~Reader() {
  close(socket_);
  waitpid(pid_, nullptr, 0);
}

void Reader::start(Waiting waiting) { ask(start_command(waiting)); }

void Reader::stop() { ask(kStop); }

void Reader::ask(char command) {
  char answer = 0;
  if (write(socket_, &command, 1) != 1 || read(socket_, &answer, 1) != 1)
    throw std::system_error(errno, std::generic_category(), "the reader is gone");
}

}  // namespace varn::bench
