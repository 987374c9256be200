#include "util/encoding_util.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/support.h"
#include "util/console.h"

namespace varn::test {
namespace {

// What a cut keeps, and what it prints meanwhile.
std::pair<int, std::string> cut(const std::string& text, int len, int limit, int encoding) {
  testing::internal::CaptureStdout();
  const int kept = hcut(text.c_str(), len, limit, encoding);
  std::fflush(stdout);
  return {kept, testing::internal::GetCapturedStdout()};
}

void set_console(const char* value) {
  setenv("VARN_CONSOLE", value, 1);
  read_console_setting();
}

TEST(Cutting, EndsAtTheLastWholeCharacterOfEitherEncoding) {
  set_console("off");
  const struct {
    std::string text;
    int len, limit, encoding, kept;
  } rows[] = {
      {"abcdef", -1, 10, kEucKr, 6},
      {"abcdef", 6, 6, kEucKr, 6},
      {"abcdef", 6, 0, kEucKr, 0},
      {"abcdef", 6, -1, kEucKr, 0},
      {"abcdef", 6, 5, 2, 0},
      {"\xB0\xA1\xB3\xAA", 4, 3, kEucKr, 2},
      {"\xB0\xA1\xB3\xAA", 4, 1, kEucKr, 0},
      {"\xB0\xB3\xB0\xB3", 4, 3, kEucKr, 0},
      {"a\xB0\xB3\xB0\xB3", 5, 3, kEucKr, 1},
      {"\xB0\xAF\xC9\xC8\xC8", 5, 4, kEucKr, 3},
      {"\xEA\xB0\x80\xEB\x82\x98", 6, 5, kUtf8, 3},
      {"\xEA\xB0\x80\xEB\x82\x98", 6, 3, kUtf8, 3},
      {"\xEA\xB0\x80\xEB\x82\x98", 6, 2, kUtf8, 0},
      {"ab\xEA\xB0\x80z", 6, 5, kUtf8, 5},
      {"a\xC3\xA9xyz", 6, 3, kUtf8, 1},
      {"a\xEA\xB0", 3, 2, kUtf8, 1},
      {"a\xEA\xB0zz", 5, 3, kUtf8, 1},
  };
  for (const auto& row : rows)
    EXPECT_EQ(cut(row.text, row.len, row.limit, row.encoding), (std::pair{row.kept, std::string()}))
        << row.text << ' ' << row.limit;
  EXPECT_EQ(hcut(nullptr, 5, 3, kEucKr), 0);
}

TEST(Cutting, IsTracedOnTheConsole) {
  set_console("on");
  EXPECT_EQ(cut("abc", -1, 3, kEucKr).second, "");
  EXPECT_EQ(cut("\xB0\xA1\xB3\xAA", -1, 3, kEucKr).second,
            std::string(51, '-') +
                "\norg_len = 4 \ncut_len = 3 \nstd_len = 3 \n"
                "org_str[2] = ffffffb3, (maskoff(b0) \norg_str[1] = ffffffa1, (maskoff(a0) \n"
                "found hangul(euc-kr)\ndest = |\xB0\xA1|\n");
}

}  // namespace
}  // namespace varn::test
