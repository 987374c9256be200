#include "util/encoding_util.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/support.h"
#include "util/console.h"

namespace varn::test {
namespace {

class Cutting : public testing::Test {
 protected:
  void SetUp() override {
    setenv("VARN_CONSOLE", "off", 1);
    read_console_setting();
  }
};

TEST_F(Cutting, KnownCutsOfBothEncodings) {
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
      {"\xEA\xB0\x80\xEB\x82\x98", 6, 4, kUtf8, 3},
      {"\xEA\xB0\x80\xEB\x82\x98", 6, 5, kUtf8, 3},
      {"\xEA\xB0\x80\xEB\x82\x98", 6, 3, kUtf8, 3},
      {"\xEA\xB0\x80\xEB\x82\x98", 6, 2, kUtf8, 0},
      {"ab\xEA\xB0\x80z", 6, 5, kUtf8, 5},
      {"a\xC3\xA9xyz", 6, 3, kUtf8, 1},
      {"a\xEA\xB0", 3, 2, kUtf8, 1},
      {"a\xEA\xB0zz", 5, 3, kUtf8, 1},
  };
  for (const auto& row : rows)
    EXPECT_EQ(hcut(row.text.c_str(), row.len, row.limit, row.encoding), row.kept)
        << row.text << ' ' << row.limit;
  EXPECT_EQ(hcut(nullptr, 5, 3, kEucKr), 0);
}

// Syllables whose second byte leads none: with them a cut is always at a character's end.
TEST_F(Cutting, EveryLimitOfAMixedTextEndsAtTheLastWholeCharacter) {
  const std::string characters[] = {"가", "a", "나", "라", "1", " ", "가", "가", "바", "z", "자"};
  for (const int encoding : {kEucKr, kUtf8}) {
    std::string text;
    std::vector<int> ends = {0};
    for (const std::string& character : characters) {
      text += encoding == kUtf8 ? character : euc_kr(character);
      ends.push_back(static_cast<int>(text.size()));
    }
    for (int limit = 1; limit <= static_cast<int>(text.size()); ++limit)
      EXPECT_EQ(hcut(text.c_str(), -1, limit, encoding),
                *std::prev(std::upper_bound(ends.begin(), ends.end(), limit)))
          << encoding << ' ' << limit;
  }
}

TEST_F(Cutting, IsTracedOnTheConsoleUnlessSwitchedOff) {
  const auto printed = [](const std::string& text, int limit, int encoding) {
    testing::internal::CaptureStdout();
    hcut(text.c_str(), -1, limit, encoding);
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ(printed("\xB0\xA1\xB3\xAA", 3, kEucKr), "");
  setenv("VARN_CONSOLE", "on", 1);
  read_console_setting();
  EXPECT_EQ(printed("abc", 3, kEucKr), "");
  const std::string line(51, '-');
  EXPECT_EQ(printed("\xB0\xA1\xB3\xAA", 3, kEucKr),
            line +
                "\norg_len = 4 \ncut_len = 3 \nstd_len = 3 \n"
                "org_str[2] = ffffffb3, (maskoff(b0) \norg_str[1] = ffffffa1, (maskoff(a0) \n"
                "found hangul(euc-kr)\ndest = |\xB0\xA1|\n");
  EXPECT_EQ(printed("a\xEA\xB0zz", 3, kUtf8),
            line +
                "\norg_len = 5 \ncut_len = 3 \nstd_len = 3 \n"
                "org_str[2] = ffffffb0, (maskoff(b0) \norg_str[1] = ffffffea, (maskoff(e0) \n"
                "<!> unknown type of language format \ndest = |a|\n");
  EXPECT_EQ(
      printed("ab", 1, 7),
      line + "\norg_len = 2 \ncut_len = 1 \nstd_len = 1 \nundefined encoding typedest = ||\n");
}

}  // namespace
}  // namespace varn::test
