// A file of whole telegrams, as the writer of a traced process leaves it: read from its beginning
// to its end, past whatever in it is no record.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace varn {

// The texts lie in the reader's memory until the next record is looked for.
struct TongRecord {
  std::string_view gid;        // without trailing blanks, as the host name
  std::int64_t time_us;        // since 1970, when the record was built
  std::string_view host_name;  // at most 15 characters of it
  char direction;              // 'S' request, 'F' response, 'U' else
  std::string_view telegram;
  std::uint64_t offset;  // of the record in its file
};

// A part of the file that is no record, as long as can be.
struct TongDamage {
  std::uint64_t offset;
  std::uint64_t size;
  bool is_tail;  // it is the beginning of a record whose end the file lacks
};

struct TongHandlers {
  std::function<void(const TongRecord&)> on_record;
  std::function<void(const TongDamage&)> on_damage;
};

// Hands out all records and damage in the order of the file, holding a few records' length of it.
// Records that follow one another from the file's beginning are taken by their lengths, whatever
// their telegrams hold. Behind damage, reading goes on where a whole record stands with the end of
// the file or the head of another one right behind it. False, with the reason in `error`, when the
// file cannot be read to its end.
bool read_tong_file(const std::string& path, const TongHandlers& handlers, std::string& error);

}  // namespace varn
