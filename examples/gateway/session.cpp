#include "session.h"

#include <optional>
#include <system_error>

#include "answer.h"
#include "frame.h"
#include "telegram.h"

namespace gateway {
namespace {

using asio::ip::tcp;

// How long a peer may take over what it has begun.
constexpr std::chrono::seconds kPatience{10};
constexpr std::chrono::seconds kPatienceAfterLast{2};

}  // namespace

// Between two telegrams a peer may be silent for as long as it likes.
void Session::read_telegram() {
  received_.resize(kLengthSize);
  asio::async_read(
      socket_, asio::buffer(received_),
      [self = shared_from_this()](std::error_code, std::size_t size) { self->on_length(size); });
}

void Session::on_length(std::size_t size) {
  if (size == 0) return;  // the peer is through
  received_.resize(size);
  if (size < kLengthSize) return refuse(kCutOff);
  const std::optional<std::size_t> length = telegram_length(received_);
  if (!length) return refuse(kBadLength);
  read_rest(*length);
}

void Session::read_rest(std::size_t length) {
  expect_within(kPatience);
  received_.resize(length);
  const auto rest = asio::buffer(received_) + kLengthSize;
  asio::async_read(socket_, rest,
                   [self = shared_from_this()](std::error_code fault, std::size_t size) {
                     self->deadline_.cancel();
                     if (!fault) return self->serve();
                     self->received_.resize(kLengthSize + size);
                     self->refuse(kCutOff);
                   });
}

void Session::serve() {
  Telegram request(std::move(received_));
  auto& pool = is_client_handlers(request) ? workers_.client_handler : workers_.ordinary;
  const auto executor = socket_.get_executor();
  asio::post(pool, [self = shared_from_this(), request = std::move(request),
                    busy = asio::make_work_guard(executor)] {
    std::string answer = gateway::answer(self->workers_.ledger, request);
    asio::post(busy.get_executor(), [self, answer = std::move(answer)]() mutable {
      self->answer_ = std::move(answer);
      self->write();
    });
  });
}

// Where the next telegram would begin is not known any more.
void Session::refuse(std::string_view reason) {
  answer_ = gateway::refuse(received_, reason);
  is_last_ = true;
  write();
}

void Session::write() {
  expect_within(kPatience);
  asio::async_write(socket_, asio::buffer(answer_),
                    [self = shared_from_this()](std::error_code fault, std::size_t) {
                      self->deadline_.cancel();
                      if (fault) return;
                      self->is_last_ ? self->linger() : self->read_telegram();
                    });
}

// A socket that is closed with unread bytes in it resets the connection, and the peer may then
// never see the answer.
void Session::linger() {
  std::error_code ignored;
  socket_.shutdown(tcp::socket::shutdown_send, ignored);
  expect_within(kPatienceAfterLast);
  discard();
}

void Session::discard() {
  socket_.async_read_some(asio::buffer(discarded_),
                          [self = shared_from_this()](std::error_code fault, std::size_t) {
                            if (!fault) return self->discard();
                            self->deadline_.cancel();
                          });
}

// Otherwise the connection is closed, and what is under way on it fails.
void Session::expect_within(std::chrono::seconds time) {
  deadline_.expires_after(time);
  deadline_.async_wait([self = shared_from_this()](std::error_code cancelled) {
    std::error_code ignored;
    if (!cancelled) self->socket_.close(ignored);
  });
}

void Session::end() {
  std::error_code ignored;
  socket_.shutdown(tcp::socket::shutdown_receive, ignored);
}

}  // namespace gateway
