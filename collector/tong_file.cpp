#include "collector/tong_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

#include "collector/decode.h"
#include "layout/tong_record.h"

namespace varn {
namespace {

constexpr std::size_t kLongestTong = tong_record_size(kMostTongTelegram);
// What must be at hand to tell a record: its own bytes and the head behind it.
constexpr std::size_t kLookAhead = kLongestTong + sizeof(TongHead);

// The file from a position on that only moves forward.
class Window {
 public:
  explicit Window(int fd) : fd_(fd) {}  // closes it in the end
  ~Window() { close(fd_); }
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  // At least kLookAhead bytes, unless the file ends or cannot be read before.
  std::string_view ahead() {
    if (end_ - begin_ < kLookAhead) fill();
    return {buffer_.data() + begin_, end_ - begin_};
  }
  void advance(std::size_t size) {
    begin_ += size;
    offset_ += size;
  }
  std::uint64_t offset() const { return offset_; }
  int fault() const { return fault_; }  // error number, 0 for none

 private:
  void fill() {
    if (at_end_) return;
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    while (end_ < buffer_.size() && !at_end_) {
      const ssize_t got = read(fd_, buffer_.data() + end_, buffer_.size() - end_);
      if (got > 0) end_ += static_cast<std::size_t>(got);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) fault_ = errno;
      at_end_ = got <= 0;
    }
  }

  const int fd_;
  std::vector<char> buffer_ = std::vector<char>(4 * kLookAhead);
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t offset_ = 0;
  bool at_end_ = false;
  int fault_ = 0;
};

constexpr std::size_t kTimeAt = offsetof(TongHead, seconds);
constexpr std::size_t kHostNameAt = offsetof(TongHead, host_name);
constexpr std::size_t kDirectionAt = offsetof(TongHead, direction);
constexpr std::size_t kLengthAt = offsetof(TongHead, length);
constexpr std::size_t kSecondsSize = sizeof(TongHead::seconds);

// Whether the bytes, as far as they go, may be a record's head. Of GID and host name any may.
bool may_be_head(std::string_view bytes) {
  const auto digits = [&](std::size_t at, std::size_t end) {
    const auto to = bytes.begin() + static_cast<std::ptrdiff_t>(std::min(end, bytes.size()));
    return at >= bytes.size() || std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(at), to,
                                             [](char c) { return c >= '0' && c <= '9'; });
  };
  if (bytes.size() > kDirectionAt &&
      std::string_view("SFU").find(bytes[kDirectionAt]) == std::string_view::npos)
    return false;
  return digits(kTimeAt, kHostNameAt) && digits(kLengthAt, sizeof(TongHead));
}

std::uint64_t number_at(std::string_view bytes, std::size_t at, std::size_t size) {
  return digits_of(bytes.substr(at, size)).value_or(0);
}

// What the head says; the bytes hold one.
std::size_t record_size(std::string_view bytes) {
  return tong_record_size(number_at(bytes, kLengthAt, sizeof(TongHead::length)));
}

// The size of the record that the bytes begin with; 0 when that is not a whole one.
std::size_t whole_record(std::string_view bytes) {
  if (bytes.size() < sizeof(TongHead) || !may_be_head(bytes)) return 0;
  const std::size_t size = record_size(bytes);
  return size <= bytes.size() && bytes[size - 1] == '\n' ? size : 0;
}

// Whether the bytes, all that the file still has, begin a record that would be longer.
bool is_torn(std::string_view bytes) {
  return may_be_head(bytes) &&
         (bytes.size() < sizeof(TongHead) || record_size(bytes) > bytes.size());
}

std::string_view text_at(std::string_view bytes, std::size_t at, std::size_t size) {
  const std::string_view text = bytes.substr(at, size);
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

TongRecord record_of(std::string_view bytes, std::uint64_t offset) {
  const auto time = [bytes](std::size_t at, std::size_t size) {
    return static_cast<std::int64_t>(number_at(bytes, at, size));
  };
  return {.gid = text_at(bytes, 0, sizeof(TongHead::gid)),
          .time_us = time(kTimeAt, kSecondsSize) * 1'000'000 +
                     time(kTimeAt + kSecondsSize, sizeof(TongHead::usec)),
          .host_name = text_at(bytes, kHostNameAt, sizeof(TongHead::host_name)),
          .direction = bytes[kDirectionAt],
          .telegram = bytes.substr(sizeof(TongHead), bytes.size() - sizeof(TongHead) - 1),
          .offset = offset};
}

bool resumes(std::string_view bytes) {
  const std::size_t size = whole_record(bytes);
  return size > 0 && may_be_head(bytes.substr(size));
}

// From a place that is no record to the next one, or to the file's end.
TongDamage skip_damage(Window& window) {
  TongDamage damage = {.offset = window.offset(), .size = 0, .is_tail = is_torn(window.ahead())};
  std::string_view bytes;
  do {
    window.advance(1);
    bytes = window.ahead();
  } while (!bytes.empty() && !resumes(bytes));
  damage.size = window.offset() - damage.offset;
  damage.is_tail = damage.is_tail && bytes.empty();
  return damage;
}

void read_records(Window& window, const TongHandlers& handlers) {
  for (std::string_view bytes; !(bytes = window.ahead()).empty();) {
    if (const std::size_t size = whole_record(bytes); size > 0) {
      handlers.on_record(record_of(bytes.substr(0, size), window.offset()));
      window.advance(size);
      continue;
    }
    const TongDamage damage = skip_damage(window);
    if (window.fault() == 0) handlers.on_damage(damage);
  }
}

}  // namespace

bool read_tong_file(const std::string& path, const TongHandlers& handlers, std::string& error) {
  const auto cannot = [&](const char* what, int fault) {
    error = std::string("cannot ") + what + " " + path + ": " + std::strerror(fault);
    return false;
  };
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return cannot("open", errno);
  Window window(fd);
  read_records(window, handlers);
  return window.fault() == 0 || cannot("read", window.fault());
}

}  // namespace varn
