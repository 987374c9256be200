#include "collector/describe.h"

#include <initializer_list>

namespace varn {
namespace {

constexpr std::int64_t kNoSqlcode = 9999;  // none was reported

std::string field_text(const DecodedRecord& record, std::string_view name) {
  return utf8_from_uhc(field_of(record, name));
}

void add_word(std::string& text, std::string_view word) {
  if (word.empty()) return;
  if (!text.empty()) text += ' ';
  text += word;
}

void add_labelled(std::string& text, std::string_view label, const std::string& value) {
  if (!value.empty()) add_word(text, std::string(label).append("=").append(value));
}

}  // namespace

std::string id_text(std::string_view bytes) {
  const auto number = digits_of(bytes);
  return number ? std::to_string(*number) : utf8_from_uhc(bytes);
}

std::string time_text(std::string_view bytes) {
  if (bytes.size() != kTime.width || !digits_of(bytes)) return utf8_from_uhc(bytes);
  const std::string text(bytes);
  return text.substr(0, 2) + ':' + text.substr(2, 2) + ':' + text.substr(4, 2) + '.' +
         text.substr(6);
}

std::string milliseconds_text(std::int64_t us) {
  const std::uint64_t size =
      us < 0 ? 0 - static_cast<std::uint64_t>(us) : static_cast<std::uint64_t>(us);
  const std::string rest = std::to_string(size % 1000);
  return (us < 0 ? "-" : "") + std::to_string(size / 1000) + '.' +
         std::string(3 - rest.size(), '0') + rest;
}

std::string kind_text(const DecodedRecord& record) {
  if (record.kind != nullptr) return std::string(record.kind->name);
  return "type " + utf8_from_uhc({&record.rec_type, 1}) + '?';
}

std::string service_text(const DecodedRecord& record) {
  std::string text;
  add_labelled(text, "channel", field_text(record, kChnlTypCd.name));
  add_labelled(text, "receiver", field_text(record, kRecvSvcCd.name));
  add_labelled(text, "result", field_text(record, "proc_rslt_dv_cd"));
  add_labelled(text, "error", field_text(record, "std_tmsg_err_cd"));
  add_labelled(text, "tail", field_text(record, "tail"));
  return text;
}

std::string notice_text(const DecodedRecord& record) {
  std::string text;
  const std::string code = field_text(record, "code");
  if (!code.empty()) text = '[' + code + ']';
  for (const std::string_view name : {"recv_svc_cd", "chnl_class", "message", "text"})
    add_word(text, field_text(record, name));
  return text;
}

std::string call_text(const CallText& call) {
  std::string text;
  if (call.label != "METHOD" && call.label != "DYCALL" && !call.label.empty())
    text = '[' + utf8_from_uhc(call.label) + ']';
  add_word(text, utf8_from_uhc(call.function));
  if (!call.place.empty() && call.place != call.function)
    text += " at " + utf8_from_uhc(call.place);
  if (!call.source.empty()) {
    text += " (" + utf8_from_uhc(call.source);
    if (call.line.value_or(0) != 0) text += ':' + std::to_string(*call.line);
    text += ')';
  }
  return text;
}

std::string outcome_text(const CallText& call) {
  std::string text;
  if (call.rc.value_or(0) != 0) add_labelled(text, "rc", std::to_string(*call.rc));
  if (!call.db) return text;
  if (call.db->sqlcode != kNoSqlcode && call.db->sqlcode != 0)
    add_labelled(text, "sqlcode", std::to_string(call.db->sqlcode));
  if (call.db->rows != 0 || call.db->fetch_us != 0)
    add_word(text, "fetched=" + std::to_string(call.db->rows) + " in " +
                       milliseconds_text(call.db->fetch_us) + "ms");
  if (call.db->connection != "/") add_labelled(text, "db", utf8_from_uhc(call.db->connection));
  return text;
}

}  // namespace varn
