#include "tools/varn/json_line.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace varn {
namespace {

// Fields that the traced process fills with digits whatever its caller says.
constexpr std::string_view kNumbers[] = {kElapsed.name, kDbioElapsed.name, kDepth.name};

nlohmann::ordered_json value_of(const FieldText& field) {
  if (std::ranges::find(kNumbers, field.name) != std::end(kNumbers))
    if (const auto number = digits_of(field.bytes)) return *number;
  return utf8_from_uhc(field.bytes);
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
  return line.dump();
}

}  // namespace varn
