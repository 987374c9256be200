#include "util/readcfg.h"

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "support/support.h"

namespace varn::test {
namespace {

class ConfigFile : public testing::Test {
 protected:
  std::string path() const { return dir_ / "a.cfg"; }

  // Token `n` of a key, or what was written to standard error in its place, with "PATH" for the
  // file's name.
  std::string token(int n) {
    char out[64] = "untouched";
    testing::internal::CaptureStderr();
    const int rc = get_nth_token_in_file_section(path().c_str(), "S", "KEY", n, out);
    std::string errors = testing::internal::GetCapturedStderr();
    for (std::size_t at; (at = errors.find(path())) != errors.npos;)
      errors.replace(at, path().size(), "PATH");
    if (rc == 1) return errors + out;
    EXPECT_EQ(rc, -1);
    EXPECT_STREQ(out, "untouched") << "a failure must leave the buffer as it was";
    return errors;
  }

  TempDir dir_;
};

const std::string kNoKey =
    "[get_string_in_section] not found keyword[KEY]\n"
    "[get_string_in_section] not found keyword[KEY]; file=PATH, section=S\n";
const std::string kSixteen = "[S]\nKEY = 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n";

std::string over(const char* limit, int line) {
  return "[get_nth_token_in_file_section] " + std::string(limit) +
         " characters; file=PATH, lnum=" + std::to_string(line) + "\n";
}
std::string no_token(int n, int line) {
  return "[get_nth_token_in_file_section] can't found nth(" + std::to_string(n) +
         ") token; file=PATH, section=S, keyword=KEY, lnum=" + std::to_string(line) + "\n";
}

TEST_F(ConfigFile, FindsTokensAsTheSyntaxSaysAndRefusesWhatDoesNotFit) {
  EXPECT_EQ(token(1),
            "[get_nth_token_in_file_section] fopen fail[PATH]; "
            "errno=2(No such file or directory)\n");
  const struct {
    std::string content;
    int n;
    std::string expected;
  } cases[] = {
      {"[S]\nKEY = 300 1\n", 2, "1"},
      {"[S]\nKEY = 300 1\n", 3, no_token(3, 2)},
      {"[S]\nKEY = 300 1\n", 0, no_token(0, 2)},
      {"[S]\nKEY=a\n", 1, kNoKey},  // a blank ends the keyword
      {"[S]\nKEY =a\n", 1, "a"},
      {"[S]\n \tKEY\t=\t a\tb\n", 2, "b"},
      {"[S]\nKEY = a=b = c\n", 1, "a=b"},
      {"[S]\n\nKEY a b\n", 1, no_token(1, 3)},
      {"[S]\nKEY =\n", 1, no_token(1, 2)},
      {"[S]\nKEY = a\nKEY = b\n", 1, "a"},
      {"[S]\nKEYS = a\nkey = b\nKE = c\n", 1, kNoKey},
      {"[S]\n#KEY = a\n# KEY = b\n # = a\n #KEY = b\nKEY = c\n", 1, "c"},
      {"KEY = a\n[S]\n[T]\nKEY = a\n", 1, kNoKey},
      {"[T]\n[XSY]\nKEY = a\n[S]\nKEY = b\n", 1, "a"},  // a part of a header is enough
      {"[XS]\n[S]\nKEY = b\n", 1, kNoKey},
      {" [S]\nKEY = a\n[S]\nKEY = b\n", 1, "b"},  // a header stands in the first column
      {"[S]\r\n\r\nKEY = a b\r\n", 2, "b"},
      {"[T]\nKEY = a\n", 1,
       "[seek_section] not found section[S]\n"
       "[seek_section] not found section[S] in file[PATH]\n"},
      {kSixteen, 16, "16"},
      {kSixteen, 17, no_token(17, 2)},
      {"[S]\nKEY = " + std::string(63, 'x') + "\n", 1, std::string(63, 'x')},
      {"[S]\n\nKEY = " + std::string(64, 'x') + "\n", 1, over("token over 63", 3)},
      {"[S]\nKEY = a " + std::string(64, 'x') + "\n", 1, over("token over 63", 2)},
      {"[S]\nKEY = a" + std::string(247, ' ') + "b\n", 2, "b"},
      {"[S]\nKEY = a" + std::string(248, ' ') + "b\n", 2, over("line over 255", 2)},
      {"[S]\nKEY = a" + std::string(247, ' ') + "b", 2, "b"},
      {"[S]\nKEY = a" + std::string(248, ' ') + "b", 2, over("line over 255", 2)},
      {"#" + std::string(256, 'x') + "\n[S]\nKEY = a\n", 1, over("line over 255", 1)},
  };
  for (const auto& c : cases) {
    write_file(path(), c.content);
    EXPECT_EQ(token(c.n), c.expected) << c.content;
  }
}

TEST_F(ConfigFile, SeekingCountsLines) {
  write_file(path(), "# one\n[T]\n[S]\n# four\n\nKEY =  a b\n[U]\nLATE = c\n");
  std::FILE* const file = std::fopen(path().c_str(), "r");
  char out[256];
  EXPECT_EQ(seek_section(file, "S"), 3);
  EXPECT_EQ(get_string_in_section(file, "KEY", out), 3);
  EXPECT_STREQ(out, "a b\n");
  EXPECT_EQ(seek_section(file, "T"), 2) << "searches from the top";
  EXPECT_EQ(get_string_in_section(file, "LATE", out), -1);
  EXPECT_EQ(seek_section(file, "V"), -1);
  std::fclose(file);
}

TEST_F(ConfigFile, WhateverItHoldsATokenFitsAndNothingElseIsWritten) {
  const std::string pieces[] = {
      "[S]", "KEY",  " = ",  "=",  "\n", "\nKEY = ",           "[",
      "#",   "%n%s", "\r\n", "\t", "\f", std::string(1, '\0'), "\xff\xa1",
      "a",   "b c ", "]",    "S",  " ",  std::string(63, 'x'), std::string(190, 'y')};
  std::mt19937_64 random(11);
  int found = 0;
  for (int n = rounds(5'000, 2000); n > 0; --n) {
    std::string content = random() % 4 == 0 ? "" : "[S]\nKEY = ";
    for (std::uint64_t left = random() % 12; left > 0; --left)
      content += pieces[random() % std::size(pieces)];
    write_file(path(), content);
    struct {
      char token[64] = "untouched";
      char behind[8] = "behind";
    } out;
    testing::internal::CaptureStderr();
    const int rc = get_nth_token_in_file_section(path().c_str(), "S", "KEY",
                                                 static_cast<int>(random() % 18), out.token);
    const std::string errors = testing::internal::GetCapturedStderr();
    ASSERT_EQ(rc == 1, errors.empty()) << content;
    ASSERT_TRUE(rc == 1 ? strnlen(out.token, 64) < 64
                        : rc == -1 && std::string("untouched") == out.token)
        << content;
    ASSERT_STREQ(out.behind, "behind") << content;
    if (rc == 1) ++found;
  }
  EXPECT_GT(found, 5);
}

}  // namespace
}  // namespace varn::test
