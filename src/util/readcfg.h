// The configuration file: values of keywords in sections. Every request opens the file, searches it
// from the top and closes it; faults go to standard error, since no log is open yet.
//
//   [SECTION]            a header belongs to S when S occurs anywhere in its line
//   # comment            only with '#' in the first column
//   KEYWORD = a b c      white space must stand before the '='; up to 16 tokens
#pragma once

#include <cstdio>

namespace varn {

inline constexpr int kMaxConfigLine = 255;  // characters; a longer line is refused, not cut
inline constexpr int kMaxConfigToken = 63;
inline constexpr int kMaxConfigTokens = 16;

struct ConfigValue {
  int count;
  int line;  // the keyword's, from 1
  char token[kMaxConfigTokens][kMaxConfigToken + 1];
};

// Reads all tokens of a keyword's value: 1, or -1 when file, section or keyword is not there or a
// line or token is too long.
int get_tokens_in_file_section(const char* path, const char* section, const char* keyword,
                               ConfigValue* out);

// Copies token `n` (from 1) into `out`, of at least 64 bytes: 1, or -1 with `out` unchanged.
int get_nth_token_in_file_section(const char* path, const char* section, const char* keyword, int n,
                                  char* out);

// Goes to the line after a section's header: the header's line number from 1, or -1.
int seek_section(std::FILE* file, const char* section);

// From the current position, copies the value of the section's keyword into `out`, of at least 256
// bytes: the count of lines read to reach it, or -1.
int get_string_in_section(std::FILE* file, const char* keyword, char* out);

}  // namespace varn
