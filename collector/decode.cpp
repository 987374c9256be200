#include "collector/decode.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <span>

namespace varn {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

std::string_view without_blanks(std::string_view bytes) {
  const std::size_t last = bytes.find_last_not_of(' ');
  return last == std::string_view::npos ? std::string_view() : bytes.substr(0, last + 1);
}

void add_fields(std::span<const Field> fields, std::string_view view, DecodedRecord& out) {
  for (const Field& field : fields)
    out.fields.push_back({field.name, without_blanks(view.substr(field.at, field.width))});
}

void add_rest(std::string_view name, std::string_view bytes, DecodedRecord& out) {
  out.fields.push_back({name, without_blanks(bytes)});
}

constexpr bool is_service(const RecordKind& kind) {
  return kind.body.data() == kServiceBody.data();
}

// A conversion descriptor of a thread's own; they hold state.
struct UhcDecoder {
  iconv_t handle = iconv_open("UTF-8", "UHC");
  UhcDecoder() = default;
  ~UhcDecoder() {
    if (usable()) iconv_close(handle);
  }
  UhcDecoder(const UhcDecoder&) = delete;
  UhcDecoder& operator=(const UhcDecoder&) = delete;
  bool usable() const { return handle != reinterpret_cast<iconv_t>(-1); }
};

constexpr bool is_control(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

void append_picture(char control, std::string& out) {
  const int at = control == 0x7F ? 0x21 : control;
  out += "\xE2\x90";
  out += static_cast<char>(0x80 + at);
}

bool is_lead(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x81 && byte <= 0xFE;
}

bool is_trail(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || is_lead(c); }

// Decodes the character that `bytes` begin with and returns its size. One by one: of a character
// that it does not know, the converter may take the bytes and say nothing.
std::size_t append_converted(UhcDecoder& decoder, std::string_view bytes, std::string& out) {
  const std::size_t size = bytes.size() > 1 && is_lead(bytes[0]) && is_trail(bytes[1]) ? 2 : 1;
  char* in = const_cast<char*>(bytes.data());  // iconv does not write there
  std::size_t in_left = size;
  char room[8];
  char* to = room;
  std::size_t room_left = sizeof room;
  if (decoder.usable() && size == 2 &&
      iconv(decoder.handle, &in, &in_left, &to, &room_left) != std::size_t(-1) && to != room) {
    out.append(room, to);
  } else {
    for (std::size_t i = 0; i < size; ++i) out += kReplacement;
  }
  return size;
}

}  // namespace

void decode(const TRAN_LOGF_QUE_DATA& data, std::size_t size, DecodedRecord& out) {
  const std::string_view view(data.view, sizeof data.view);
  out.fields.clear();
  out.malformed = size != kRecordTextSize;
  out.rec_type = view[0];
  out.kind = nullptr;
  out.length = data.length;
  if (out.malformed) {
    const std::size_t text = size < sizeof data.length ? 0 : size - sizeof data.length;
    return add_rest("text", view.substr(0, text), out);
  }
  out.kind = record_kind(out.rec_type, data.length);
  add_fields(kHeaderFields, view, out);
  if (out.kind == nullptr) return add_rest("text", view.substr(kBodyAt), out);
  if (is_service(*out.kind) && data.length != out.kind->length()) {
    add_fields(out.kind->body.first(kCommonServiceFields), view, out);
    return add_rest("tail", view.substr(kServiceBody[kCommonServiceFields - 1].end()), out);
  }
  add_fields(out.kind->body, view, out);
}

std::string_view field_of(const DecodedRecord& record, std::string_view name) {
  for (const FieldText& field : record.fields)
    if (field.name == name) return field.bytes;
  return {};
}

std::optional<std::uint64_t> digits_of(std::string_view bytes) {
  std::uint64_t number = 0;
  const char* const end = bytes.data() + bytes.size();
  const auto [at, fault] = std::from_chars(bytes.data(), end, number);
  if (bytes.empty() || fault != std::errc() || at != end) return std::nullopt;
  return number;
}

std::string utf8_from_uhc(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  const auto is_plain = [](char c) { return static_cast<signed char>(c) >= 0 && !is_control(c); };
  while (!bytes.empty()) {
    const auto odd = std::find_if_not(bytes.begin(), bytes.end(), is_plain);
    out.append(bytes.begin(), odd);
    bytes.remove_prefix(static_cast<std::size_t>(odd - bytes.begin()));
    if (bytes.empty()) break;
    if (is_control(bytes[0])) {
      append_picture(bytes[0], out);
      bytes.remove_prefix(1);
      continue;
    }
    static thread_local UhcDecoder decoder;
    bytes.remove_prefix(append_converted(decoder, bytes, out));
  }
  return out;
}

}  // namespace varn
