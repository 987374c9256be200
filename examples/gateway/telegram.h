// Standard telegrams, built and read by the table of varn/sttl.h. Every text is EUC-KR.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "varn/sttl.h"

namespace gateway {

inline constexpr std::size_t kHeaderSize = 512;

// An error part is looked for in longer telegrams only.
inline constexpr std::size_t kLongestWithoutErrorPart = 1084;

struct Message {
  std::string code;
  std::string text;
};

// What a telegram of data kind "EM" says went wrong; up to 99 of each.
struct ErrorPart {
  std::vector<std::string> items;  // names of the fields that are in error
  std::vector<Message> messages;
  std::vector<Message> additional;
};

class Telegram {
 public:
  Telegram() : bytes_(kHeaderSize, ' ') {}
  explicit Telegram(std::string bytes) : bytes_(std::move(bytes)) {}

  // A field at a fixed place, without the blanks at its end; of a telegram that is too short, what
  // is there of it.
  std::string_view get(const tran_sttl_field& field) const;

  // Puts a text into such a field, cut between two characters or padded with blanks to the field's
  // width. The telegram grows to hold it.
  void set(const tran_sttl_field& field, std::string_view text);

  // Makes it a telegram of data kind "EM", with this behind the header and long enough to be read.
  void set_error_part(const ErrorPart& part);

  // Nothing where there is none, where a count is no number, or where the counts lead past the end.
  std::optional<ErrorPart> error_part() const;

  // Cuts the telegram or pads it with blanks.
  void resize(std::size_t size) { bytes_.resize(size, ' '); }

  // Writes the length into the telegram, which is then ready to be sent.
  const std::string& finish();

  const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

}  // namespace gateway
