// A transfer as a channel asks for it, and the queue from which the workers take it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace bank {

struct Request {
  std::string gid;      // 30 characters, one of its own for each request
  std::string channel;  // "MBK" mobile, "WEB" internet, "BRN" branch counter, "ATM"
  std::string screen;
  std::string employee;  // at the counter only
  std::string address;   // IPv6, of the customer's device
  std::string from;      // account numbers
  std::string to;
  std::int64_t amount;  // won
};

// Bounded, so that a slow database holds the channels up instead of filling memory.
class RequestQueue {
 public:
  explicit RequestQueue(std::size_t capacity) : capacity_(capacity) {}

  void push(Request request);    // waits while the queue is full
  std::optional<Request> pop();  // waits for a request; none once closed and empty
  void close();                  // no push may follow

 private:
  const std::size_t capacity_;
  std::mutex mutex_;
  std::condition_variable not_empty_;
  std::condition_variable not_full_;
  std::deque<Request> requests_;
  bool closed_ = false;
};

}  // namespace bank
