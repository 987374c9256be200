#include "request.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>

namespace bank {

std::string new_gid() {
  static std::atomic<unsigned> sequence{0};
  const auto now = std::chrono::system_clock::now();
  const auto since_epoch =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
  const std::time_t second = std::chrono::system_clock::to_time_t(now);
  std::tm local = {};
  localtime_r(&second, &local);
  char date_and_time[16];
  std::strftime(date_and_time, sizeof date_and_time, "%Y%m%d%H%M%S", &local);
  char gid[40];
  std::snprintf(gid, sizeof gid, "%s%03dBNK0101%06u", date_and_time,
                static_cast<int>(since_epoch.count() % 1000), ++sequence % 1'000'000);
  return gid;
}

void RequestQueue::push(Request request) {
  std::unique_lock lock(mutex_);
  not_full_.wait(lock, [this] { return requests_.size() < capacity_; });
  requests_.push_back(std::move(request));
  not_empty_.notify_one();
}

std::optional<Request> RequestQueue::pop() {
  std::unique_lock lock(mutex_);
  not_empty_.wait(lock, [this] { return !requests_.empty() || closed_; });
  if (requests_.empty()) return std::nullopt;
  Request request = std::move(requests_.front());
  requests_.pop_front();
  not_full_.notify_one();
  return request;
}

void RequestQueue::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  not_empty_.notify_all();
}

}  // namespace bank
