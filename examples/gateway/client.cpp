#include "client.h"

#include <asio.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "examples/common/gid.h"
#include "frame.h"
#include "requests.h"

namespace gateway {
namespace {

using asio::ip::tcp;

constexpr int kConnections = 4;
constexpr std::chrono::seconds kPatience{20};  // for an answer

struct Counts {
  std::atomic<int> done{0};
  std::atomic<int> failed{0};  // as they should
  std::atomic<int> refused{0};
  std::atomic<int> wrong{0};
};

class Connection {
 public:
  explicit Connection(std::uint16_t port) {
    stream_.connect(tcp::endpoint(asio::ip::address_v4::loopback(), port));
    if (!stream_) throw std::system_error(stream_.error(), "port " + std::to_string(port));
    std::error_code ignored;
    stream_.socket().set_option(tcp::no_delay(true), ignored);
  }

  void send(std::string_view bytes) {
    stream_.expires_after(kPatience);
    stream_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream_.flush();
  }

  void finish_sending() {
    std::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
  }

  std::optional<Telegram> receive() {
    std::string bytes(kLengthSize, '\0');
    if (!read(bytes, 0)) return std::nullopt;
    const auto length = telegram_length(bytes);
    if (!length) return std::nullopt;
    bytes.resize(*length);
    if (!read(bytes, kLengthSize)) return std::nullopt;
    return Telegram(bytes);
  }

  // Whether the other side has closed the connection, with nothing more to say.
  bool is_closed() {
    return stream_.peek() == std::char_traits<char>::eof() && stream_.error() == asio::error::eof;
  }

 private:
  bool read(std::string& bytes, std::size_t from) {
    stream_.read(bytes.data() + from, static_cast<std::streamsize>(bytes.size() - from));
    return static_cast<bool>(stream_);
  }

  tcp::iostream stream_;
};

// Reports what is wrong, if anything is.
bool is_right(const char* name, const std::string& fault, Counts& counts) {
  if (fault.empty()) return true;
  std::fprintf(stderr, "gateway send: %s: %s\n", name, fault.c_str());
  ++counts.wrong;
  return false;
}

void send_requests(Connection& connection, int first, int requests, Counts& counts) {
  const auto& kinds = request_kinds();
  for (int i = first; i < requests; i += kConnections) {
    const RequestKind& kind = kinds[static_cast<std::size_t>(i) % kinds.size()];
    const Telegram request = request_of(kind, example::new_gid("CHN"));
    connection.send(request.bytes());
    const auto answer = connection.receive();
    const std::string fault = answer ? fault_in(*answer, kind, request) : "no answer";
    if (is_right(kind.name, fault, counts))
      ++(kind.expected.result == '0' ? counts.done : counts.failed);
    if (!answer) return;
  }
}

std::string refusal_of_broken(std::uint16_t port, const BrokenTelegram& broken) {
  Connection connection(port);
  connection.send(broken.bytes);
  connection.finish_sending();
  const auto answer = connection.receive();
  if (!answer) return "no answer";
  if (!connection.is_closed()) return "the connection is still open";
  return fault_in_refusal(*answer, "GWY009000");
}

// What is whole does not cost the connection.
std::string refusal_of_short(std::uint16_t port) {
  Connection connection(port);
  for (int i = 0; i < 2; ++i) {
    connection.send(short_telegram().bytes());
    const auto answer = connection.receive();
    if (!answer) return "no answer";
    if (std::string fault = fault_in_refusal(*answer, "GWY009001"); !fault.empty()) return fault;
  }
  return {};
}

void send_broken_ones(std::uint16_t port, Counts& counts) {
  for (const BrokenTelegram& broken : broken_telegrams())
    if (is_right(broken.name, refusal_of_broken(port, broken), counts)) ++counts.refused;
  if (is_right("shorter than a header", refusal_of_short(port), counts)) counts.refused += 2;
}

}  // namespace

bool send_all(std::uint16_t port, int requests) {
  Counts counts;
  {
    std::list<Connection> connections;
    std::vector<std::jthread> senders;
    for (int first = 0; first < kConnections; ++first)
      senders.emplace_back([&counts, &connection = connections.emplace_back(port), first,
                            requests] { send_requests(connection, first, requests, counts); });
  }
  send_broken_ones(port, counts);
  std::printf(
      "gateway send: %d requests, %d done, %d failed as they should; %d broken telegrams refused; "
      "%d wrong answers\n",
      requests, counts.done.load(), counts.failed.load(), counts.refused.load(),
      counts.wrong.load());
  return counts.wrong == 0;
}

}  // namespace gateway
