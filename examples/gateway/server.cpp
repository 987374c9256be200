#include "server.h"

#include <chrono>
#include <system_error>
#include <utility>

namespace gateway {
namespace {

using asio::ip::tcp;

constexpr std::chrono::milliseconds kPauseAfterFault{100};

}  // namespace

Server::Server(asio::io_context& io, std::uint16_t port)
    : acceptor_(io, {asio::ip::address_v4::loopback(), port}), pause_(io) {
  accept();
}

void Server::stop() {
  std::error_code ignored;
  acceptor_.close(ignored);
  pause_.cancel();
  for (const auto& weak : sessions_)
    if (const auto session = weak.lock()) session->end();
}

void Server::accept() {
  acceptor_.async_accept([this](std::error_code fault, tcp::socket socket) {
    if (!acceptor_.is_open()) return;
    if (!fault) {
      open(std::move(socket));
      return accept();
    }
    // Out of descriptors, most likely: some will be free again.
    pause_.expires_after(kPauseAfterFault);
    pause_.async_wait([this](std::error_code cancelled) {
      if (!cancelled) accept();
    });
  });
}

void Server::open(tcp::socket socket) {
  std::erase_if(sessions_, [](const auto& session) { return session.expired(); });
  std::error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  const auto session = std::make_shared<Session>(std::move(socket), workers_);
  sessions_.push_back(session);
  session->read_telegram();
}

}  // namespace gateway
