#include "request.h"

#include <utility>

namespace bank {

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
