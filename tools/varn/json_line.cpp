#include "tools/varn/json_line.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "collector/call_text.h"

namespace varn {
namespace {

// Fields that the traced process fills with digits whatever its caller says.
constexpr std::string_view kNumbers[] = {kElapsed.name, kDbioElapsed.name, kDepth.name};

nlohmann::ordered_json value_of(const FieldText& field) {
  if (std::ranges::find(kNumbers, field.name) != std::end(kNumbers))
    if (const auto number = digits_of(field.bytes)) return *number;
  return utf8_from_uhc(field.bytes);
}

void add_text(nlohmann::ordered_json& to, const char* name, std::string_view bytes) {
  to[name] = utf8_from_uhc(bytes);
}

template <typename T>
void add_if_given(nlohmann::ordered_json& to, const char* name, const std::optional<T>& value) {
  if (value) to[name] = *value;
}

nlohmann::ordered_json parts_of(const CallText& call) {
  nlohmann::ordered_json parts = {{"level", call.level},
                                  {"trace_depth", call.trace_depth},
                                  {"total_us", call.total_us},
                                  {"own_us", call.own_us},
                                  {"business_us", call.business_us},
                                  {"database_us", call.database_us},
                                  {"start_us", call.start_us},
                                  {"end_us", call.end_us}};
  add_text(parts, "label", call.label);
  add_text(parts, "function", call.function);
  add_text(parts, "place", call.place);
  add_text(parts, "source", call.source);
  add_if_given(parts, "line", call.line);
  add_if_given(parts, "number", call.number);
  add_if_given(parts, "rc", call.rc);
  if (!call.db) return parts;
  parts["sqlcode"] = call.db->sqlcode;
  parts["sql_line"] = call.db->line;
  parts["fetched_rows"] = call.db->rows;
  parts["fetch_us"] = call.db->fetch_us;
  add_text(parts, "connection", call.db->connection);
  return parts;
}

nlohmann::ordered_json parts_of(const SqlText& sql) {
  nlohmann::ordered_json parts = {
      {"statement", sql.statement}, {"statements", sql.statements}, {"piece", sql.piece}};
  if (sql.piece == 1) {
    parts["executions"] = sql.executions;
    parts["elapsed_us"] = sql.elapsed_us;
    parts["kind"] = sql.kind;
    add_text(parts, "function", sql.function);
  }
  add_text(parts, "sql", sql.text);
  return parts;
}

// The parts of a text that has some, under one name.
void add_parts(nlohmann::ordered_json& line, const DecodedRecord& record) {
  const std::string_view text = field_of(record, "text");
  if (record.rec_type == 'B' || record.rec_type == 'C') {
    if (const auto call = parse_call(text)) line["call"] = parts_of(*call);
  } else if (record.rec_type == 'Q') {
    if (const auto sql = parse_sql(text)) line["statement"] = parts_of(*sql);
  }
}

}  // namespace

std::string json_line(int queue, std::size_t size, const DecodedRecord& record) {
  nlohmann::ordered_json line;
  line["queue"] = queue;
  if (record.malformed) {
    line["kind"] = "malformed";
    line["size"] = size;
  } else {
    line["kind"] = record.kind == nullptr ? "unknown" : record.kind->name;
    line["length"] = record.length;
  }
  for (const FieldText& field : record.fields) line[std::string(field.name)] = value_of(field);
  if (!record.malformed) add_parts(line, record);
  return line.dump();
}

}  // namespace varn
