// A message as named fields, by the tables of layout/record.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "layout/record.h"

namespace varn {

struct FieldText {
  std::string_view name;
  std::string_view bytes;  // as sent, without trailing blanks; they lie in the decoded message
};

struct DecodedRecord {
  bool malformed = false;  // not of a record's size: only `text` is there
  char rec_type = ' ';
  const RecordKind* kind = nullptr;  // null when malformed or of an unknown type
  std::uint32_t length = 0;          // the length word as sent
  std::vector<FieldText> fields;     // header, then body
};

// Decodes a message whose text had `size` bytes. Every size and content is taken; what no table
// covers is one field: "text" for a message of another size or the body of an unknown type, "tail"
// for what follows the common part of a service record of another length. `data` must outlive
// `out`.
void decode(const TRAN_LOGF_QUE_DATA& data, std::size_t size, DecodedRecord& out);

// A field's bytes; empty when the record has none of that name.
std::string_view field_of(const DecodedRecord& record, std::string_view name);

// The number that the bytes spell in decimal digits and nothing else.
std::optional<std::uint64_t> digits_of(std::string_view bytes);

// UTF-8 of a text in UHC (EUC-KR with all Hangul syllables). A byte that cannot be decoded becomes
// U+FFFD, a control character its picture (U+2400 and on), so that nothing is lost and nothing acts
// on a terminal.
std::string utf8_from_uhc(std::string_view bytes);

}  // namespace varn
