#include "telegram.h"

#include <algorithm>
#include <cstdio>

namespace gateway {
namespace {

constexpr std::string_view kErrorKind = "EM";
constexpr std::size_t kMostEntries = 99;

std::size_t place_of(const tran_sttl_field& field) {
  return static_cast<std::size_t>(field.offset);
}
std::size_t width_of(const tran_sttl_field& field) {
  return static_cast<std::size_t>(field.length);
}

// As much of a text as fits, without half a Hangul syllable at its end.
std::string_view cut(std::string_view text, std::size_t width) {
  if (text.size() <= width) return text;
  std::size_t end = 0;
  for (;;) {
    const std::size_t size = static_cast<unsigned char>(text[end]) < 0x80 ? 1 : 2;
    if (end + size > width) return text.substr(0, end);
    end += size;
  }
}

std::string_view without_blanks_at_end(std::string_view text) {
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

std::string field_text(const tran_sttl_field& field, std::string_view text) {
  std::string padded(cut(text, width_of(field)));
  padded.resize(width_of(field), ' ');
  return padded;
}

std::string count_text(std::size_t count) {
  char digits[24];
  std::snprintf(digits, sizeof digits, "%02zu", count);
  return digits;
}

std::string messages_text(const std::vector<Message>& messages, const tran_sttl_field& text_field) {
  const std::size_t count = std::min(messages.size(), kMostEntries);
  std::string bytes = count_text(count);
  for (std::size_t i = 0; i < count; ++i)
    bytes += field_text(_MSG_CD, messages[i].code) + field_text(text_field, messages[i].text);
  return bytes;
}

// Walks along an error part. What is not there is not taken, and the walk has failed.
class Reader {
 public:
  explicit Reader(std::string_view rest) : rest_(rest) {}

  bool failed() const { return failed_; }

  std::string_view take(const tran_sttl_field& field) {
    failed_ = failed_ || rest_.size() < width_of(field);
    if (failed_) return {};
    const std::string_view taken = rest_.substr(0, width_of(field));
    rest_.remove_prefix(taken.size());
    return without_blanks_at_end(taken);
  }

  std::size_t take_count(const tran_sttl_field& field) {
    const std::string_view digits = take(field);
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    failed_ = failed_ || digits.size() != width_of(field) || !std::ranges::all_of(digits, is_digit);
    std::size_t count = 0;
    for (const char digit : digits) count = count * 10 + static_cast<std::size_t>(digit - '0');
    return failed_ ? 0 : count;
  }

  std::vector<Message> take_messages(const tran_sttl_field& count,
                                     const tran_sttl_field& text_field) {
    std::vector<Message> messages(take_count(count));
    for (auto& [code, text] : messages) {
      code = take(_MSG_CD);
      text = take(text_field);
    }
    return messages;
  }

 private:
  std::string_view rest_;
  bool failed_ = false;
};

}  // namespace

std::string_view Telegram::get(const tran_sttl_field& field) const {
  if (place_of(field) >= bytes_.size()) return {};
  return without_blanks_at_end(std::string_view(bytes_).substr(place_of(field), width_of(field)));
}

void Telegram::set(const tran_sttl_field& field, std::string_view text) {
  const std::string value = field_text(field, text);  // the text may be one of this telegram's
  resize(std::max(bytes_.size(), place_of(field) + width_of(field)));
  bytes_.replace(place_of(field), width_of(field), value);
}

void Telegram::set_error_part(const ErrorPart& part) {
  resize(kHeaderSize);
  set(_STD_TMSG_DAT_KIND_CD, kErrorKind);
  resize(place_of(_ERR_ORGN_ITEM_REPT_TCNT));
  const std::size_t items = std::min(part.items.size(), kMostEntries);
  bytes_ += count_text(items);
  for (std::size_t i = 0; i < items; ++i) bytes_ += field_text(_ERR_ORGN_ITEM_NM, part.items[i]);
  bytes_ += messages_text(part.messages, _RSPS_MSG_CTT);
  bytes_ += messages_text(part.additional, _ADTN_MSG);
  resize(std::max(bytes_.size(), kLongestWithoutErrorPart + 1));
}

std::optional<ErrorPart> Telegram::error_part() const {
  if (get(_STD_TMSG_DAT_KIND_CD) != kErrorKind || bytes_.size() <= kLongestWithoutErrorPart)
    return std::nullopt;
  Reader reader(std::string_view(bytes_).substr(place_of(_ERR_ORGN_ITEM_REPT_TCNT)));
  ErrorPart part;
  part.items.resize(reader.take_count(_ERR_ORGN_ITEM_REPT_TCNT));
  for (std::string& item : part.items) item = reader.take(_ERR_ORGN_ITEM_NM);
  part.messages = reader.take_messages(_MSG_INFO_REPT_TCNT, _RSPS_MSG_CTT);
  part.additional = reader.take_messages(_ADTN_MSG_REPT_TCNT, _ADTN_MSG);
  if (reader.failed()) return std::nullopt;
  return part;
}

const std::string& Telegram::finish() {
  char digits[24];
  std::snprintf(digits, sizeof digits, "%08zu", bytes_.size());
  set(_STD_TMSG_LEN, digits);
  return bytes_;
}

}  // namespace gateway
