// Connections over which telegrams come in and their answers go out.
//
// One thread does everything with sockets, the one that runs the io_context: a slow or silent peer
// holds up nobody. Whole telegrams go to threads that do the work, so that a transaction is one
// thread's from its start to its end.
#pragma once

#include <asio.hpp>

#include <cstdint>
#include <memory>
#include <vector>

#include "session.h"

namespace gateway {

class Server {
 public:
  // Listens on 127.0.0.1, for port 0 on any free one. Throws std::system_error.
  Server(asio::io_context& io, std::uint16_t port);

  std::uint16_t port() const { return acceptor_.local_endpoint().port(); }

  // Takes no more telegrams, and answers those that it has taken. The io_context has no more to do
  // then.
  void stop();

 private:
  void accept();
  void open(asio::ip::tcp::socket socket);

  Workers workers_;
  asio::ip::tcp::acceptor acceptor_;
  asio::steady_timer pause_;
  std::vector<std::weak_ptr<Session>> sessions_;
};

}  // namespace gateway
