#include "tools/varn/text_line.h"

#include <algorithm>

#include "collector/describe.h"

namespace varn {
namespace {

constexpr std::size_t kMostThreads = 10'000;

using Columns = std::array<std::string, TextLines::kColumns>;

constexpr std::array<std::string_view, TextLines::kColumns> kHeadings = {
    "TIME", "PROCESS", "THREAD", "GID", "DEPTH", "KIND", "RESPONSE", "SERVICE"};
constexpr bool right_aligned(std::size_t column) {
  return column == TextLines::kThread || column == TextLines::kResponse;
}

std::string join(const std::array<std::size_t, TextLines::kColumns>& width, const Columns& columns,
                 std::string_view message) {
  std::string line;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    const std::string blanks = padding(columns[i], width[i]);
    line += right_aligned(i) ? blanks + columns[i] : columns[i] + blanks;
    line += ' ';
  }
  line += message;
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

std::string field_text(const DecodedRecord& record, const Field& field) {
  return utf8_from_uhc(field_of(record, field.name));
}
std::string field_text(const DecodedRecord& record, std::string_view name) {
  return utf8_from_uhc(field_of(record, name));
}

// How deep to indent: as the record says, else under the service that its thread is in.
int level_of(TextLines& lines, const DecodedRecord& record, int depth) {
  std::string thread(field_of(record, kPid.name));
  thread.append("/").append(field_of(record, kTid.name));
  const auto known = lines.depth_of_thread.find(thread);
  if (depth == 0) return known == lines.depth_of_thread.end() ? 0 : known->second;
  if (record.rec_type == '1') {
    if (lines.depth_of_thread.size() >= kMostThreads) lines.depth_of_thread.clear();
    lines.depth_of_thread[thread] = depth;
  }
  if (record.rec_type == '2' && known != lines.depth_of_thread.end()) {
    if (depth > 1) {
      known->second = depth - 1;
    } else {
      lines.depth_of_thread.erase(known);
    }
  }
  return depth - 1;
}

// A call's times beside its own, which stands in a column.
std::string call_message(const CallText& call) {
  std::string message = "level " + std::to_string(call.level) + ' ' + call_text(call) +
                        " own=" + milliseconds_text(call.own_us) + "ms";
  if (call.business_us != 0) message += " business=" + milliseconds_text(call.business_us) + "ms";
  if (call.database_us != 0) message += " database=" + milliseconds_text(call.database_us) + "ms";
  const std::string outcome = outcome_text(call);
  return outcome.empty() ? message : message + ' ' + outcome;
}

std::string service_message(const DecodedRecord& record) {
  const auto dbio_us =
      static_cast<std::int64_t>(digits_of(field_of(record, kDbioElapsed.name)).value_or(0));
  const std::string text = service_text(record);
  return dbio_us == 0 ? text : "db=" + milliseconds_text(dbio_us) + "ms " + text;
}

}  // namespace

std::size_t display_width(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) == 0x80) continue;  // inside a character
    // Hangul, Hanja and full-width forms, all of three bytes, take two columns.
    const bool wide =
        byte == 0xE1 || (byte >= 0xE3 && byte <= 0xED) ||
        (byte == 0xEF && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xBF);
    width += wide ? 2 : 1;
  }
  return width;
}

std::string padding(std::string_view text, std::size_t width) {
  const std::size_t taken = display_width(text);
  return std::string(taken < width ? width - taken : 0, ' ');
}

std::string text_heading(const TextLines& lines) {
  Columns columns;
  std::ranges::copy(kHeadings, columns.begin());
  return join(lines.width, columns, "MESSAGE");
}

std::string text_line(TextLines& lines, int queue, std::size_t size, const DecodedRecord& record) {
  if (record.malformed) {
    const std::string bytes =
        size > kRecordTextSize ? "over " + std::to_string(kRecordTextSize) : std::to_string(size);
    return "malformed message of " + bytes + " bytes on queue " + std::to_string(queue) + ": " +
           field_text(record, "text");
  }

  const auto depth = static_cast<int>(
      std::min<std::uint64_t>(digits_of(field_of(record, kDepth.name)).value_or(0), 99));
  Columns columns;
  columns[TextLines::kTime] = time_text(field_of(record, varn::kTime.name));
  columns[TextLines::kProcess] =
      field_text(record, kProcNm) + '(' + id_text(field_of(record, kPid.name)) + ')';
  columns[TextLines::kThread] = id_text(field_of(record, kTid.name));
  columns[TextLines::kGid] = field_text(record, varn::kGid);
  if (depth > 0) columns[TextLines::kDepth] = field_text(record, varn::kDepth);
  columns[TextLines::kKind] = kind_text(record);
  const bool is_call = record.rec_type == 'B' || record.rec_type == 'C';
  const auto call = is_call ? parse_call(field_of(record, "text")) : std::nullopt;
  const auto elapsed_us =
      static_cast<std::int64_t>(digits_of(field_of(record, kElapsed.name)).value_or(0));
  if (call || elapsed_us > 0)
    columns[TextLines::kResponse] = milliseconds_text(call ? call->total_us : elapsed_us) + "ms";
  const int level = level_of(lines, record, depth);
  columns[TextLines::kService] =
      std::string(static_cast<std::size_t>(level) * 2, ' ') + field_text(record, kSvcId);

  for (std::size_t i = 0; i < columns.size(); ++i)
    lines.width[i] = std::max(lines.width[i], display_width(columns[i]));
  return join(lines.width, columns,
              call        ? call_message(*call)
              : depth > 0 ? service_message(record)
                          : notice_text(record));
}

}  // namespace varn
