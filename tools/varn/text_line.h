// A record as a line of text, in columns, each service level indented under the one that called it.
#pragma once

#include <array>
#include <map>
#include <string>

#include "collector/decode.h"

namespace varn {

// What the lines so far have shown: the columns' widths, and how deep each thread is.
struct TextLines {
  enum Column { kTime, kProcess, kThread, kGid, kDepth, kKind, kResponse, kService, kColumns };
  std::array<std::size_t, kColumns> width = {15, 12, 7, 30, 5, 7, 12, 16};
  std::map<std::string, int, std::less<>> depth_of_thread;
};

std::string text_heading(const TextLines& lines);

// The line, without a newline.
std::string text_line(TextLines& lines, int queue, std::size_t size, const DecodedRecord& record);

// Terminal columns that a UTF-8 text takes.
std::size_t display_width(std::string_view text);

// Blanks that fill a text up to a width.
std::string padding(std::string_view text, std::size_t width);

}  // namespace varn
