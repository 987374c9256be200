// One connection: a telegram is read, given to a worker and answered, then the next one.
#pragma once

#include <asio.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "ledger.h"

namespace gateway {

// The threads that do the work, and what they work on.
struct Workers {
  Ledger ledger;
  asio::thread_pool ordinary{4};
  // The client handler's calls put their thread at depth 1 and leave it there: in a thread of its
  // own, no other service comes to lie in that.
  asio::thread_pool client_handler{1};
};

// Lives as long as something is under way on its connection. All but the work on a telegram is done
// by the thread that runs the io_context.
class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(asio::ip::tcp::socket socket, Workers& workers)
      : socket_(std::move(socket)), deadline_(socket_.get_executor()), workers_(workers) {}

  void read_telegram();

  // Takes no more telegrams. One that is being worked on is answered.
  void end();

 private:
  void on_length(std::size_t size);
  void read_rest(std::size_t length);
  void serve();
  void refuse(std::string_view reason);
  void write();
  void linger();
  void discard();
  void expect_within(std::chrono::seconds time);

  asio::ip::tcp::socket socket_;
  asio::steady_timer deadline_;
  Workers& workers_;
  std::string received_;
  std::string answer_;
  std::array<char, 4096> discarded_ = {};
  bool is_last_ = false;
};

}  // namespace gateway
