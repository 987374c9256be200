// Whether a message that arrived is a record as the collector decodes it, every byte in its place.
#pragma once

#include <algorithm>
#include <iterator>
#include <span>

#include "collector/decode.h"
#include "support/support.h"

namespace varn::test {

inline testing::AssertionResult is_well_formed(const Record& record) {
  const auto failed = [&](std::string_view what) {
    return testing::AssertionFailure()
           << what << ": " << std::string_view(record.view, sizeof record.view);
  };
  const RecordKind* const kind = record_kind(type_of(record), record.length);
  if (kind == nullptr || record.length != kind->length()) return failed("no length of its type");
  DecodedRecord decoded;
  decode(record, kRecordTextSize, decoded);
  if (decoded.malformed || decoded.fields.size() != kHeaderFields.size() + kind->body.size())
    return failed("fields are missing");
  for (const std::span<const Field> fields : {std::span<const Field>(kHeaderFields), kind->body})
    for (const Field& field : fields)
      if (record.view[field.end() - 1] != ' ') return failed(field.name);
  for (const Field& number : {kTid, kMtrTidIdx, kPidx})
    if (!digits_of(field_of(record, number))) return failed(number.name);
  if (std::any_of(record.view + record.length, std::end(record.view),
                  [](char byte) { return byte != ' '; }))
    return failed("something behind its end");
  return testing::AssertionSuccess();
}

}  // namespace varn::test
