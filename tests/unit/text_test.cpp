#include "util/text.h"

#include <sys/mman.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <string>

#include "support/support.h"
#include "util/message.h"

namespace varn::test {
namespace {

TEST(PutPadded, CutsOrPadsToTheWidth) {
  const struct {
    const char* name;
    Text in;
    const char* out;
  } cases[] = {
      {"absent", {}, "     "},
      {"absent, with a length", {nullptr, 7}, "     "},
      {"empty", {"", 0}, "     "},
      {"empty, zero-ended", {"", -1}, "     "},
      {"shorter", {"pay", 3}, "pay  "},
      {"shorter, zero-ended", {"pay", -1}, "pay  "},
      {"part of a text", {"payment", 3}, "pay  "},
      {"exact", {"12345", 5}, "12345"},
      {"longer", {"1234567", 7}, "12345"},
      {"longer, zero-ended", {"1234567", -1}, "12345"},
      {"any negative length is zero-ended", {"pay", std::numeric_limits<int>::min()}, "pay  "},
      {"a wild length is cut", {"1234567", std::numeric_limits<int>::max()}, "12345"},
      {"bytes behind a zero byte count by length", {"a\0b", 3}, "a\0b  "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string field(7, '#');
    put_padded(field.data(), 5, c.in);
    EXPECT_EQ(field, std::string(c.out, 5) + "##");
  }
}

TEST(PutPadded, NeverReadsBeyondTheWidth) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  char* const pages = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
  char* const text = pages + page - 5;
  std::memcpy(text, "12345", 5);  // no zero byte before the forbidden page
  for (const int len : {-1, 5, 1000}) {
    char field[5];
    put_padded(field, sizeof field, {text, len});
    EXPECT_EQ(std::string(field, 5), "12345") << len;
  }
  munmap(pages, 2 * page);
}

TEST(PutPadded, ATextMayOverlapItsField) {
  char buffer[] = "abcdefgh";
  put_padded(buffer + 2, 4, {buffer, 4});
  EXPECT_STREQ(buffer, "ababcdgh");
}

TEST(PutDigits, FillsWithZerosAndShowsTheNearestThatFits) {
  const struct {
    std::int64_t number;
    const char* out;
  } cases[] = {{0, "00000"},
               {42, "00042"},
               {99999, "99999"},
               {100000, "99999"},
               {std::numeric_limits<std::int64_t>::max(), "99999"},
               {-1, "00000"},
               {std::numeric_limits<std::int64_t>::min(), "00000"}};
  for (const auto& c : cases) {
    std::string field(7, '#');
    put_digits(field.data(), 5, c.number);
    EXPECT_EQ(field, std::string(c.out) + "##") << c.number;
  }
}

TEST(PutZeroEnded, CutsAndFillsWithZeros) {
  char name[5] = "####";
  put_zero_ended(name, "ab");
  EXPECT_EQ(std::string(name, 5), std::string("ab\0\0\0", 5));
  put_zero_ended(name, "abcdefg");
  EXPECT_EQ(std::string(name, 5), std::string("abcd\0", 5));
}

TEST(Message, IsPutTogetherAndCutAtItsCapacity) {
  Message<16> message;
  message << "a" << 'b' << std::int32_t{-7} << std::numeric_limits<std::int64_t>::min() << "more";
  EXPECT_EQ(message.view(), "ab-7-92233720368");
  EXPECT_EQ(message.text().len, 16);
}

TEST(Message, FixedNumbersAreAsPrintfWritesThem) {
  const auto check = [](float number) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "%6.2f", static_cast<double>(number));
    const std::string got(Message<64>().fixed2(number).view());
    ASSERT_EQ(got, expected) << std::hexfloat << number;
  };
  for (int eighths = -8000; eighths <= 8000; ++eighths)  // holds every tie between two hundredths
    ASSERT_NO_FATAL_FAILURE(check(static_cast<float>(eighths) / 8.0F));
  std::mt19937 random(20180518);
  for (int i = 0; i < 300'000; ++i) {
    const auto number = std::bit_cast<float>(static_cast<std::uint32_t>(random()));
    if (std::isfinite(number) && std::fabs(number) < 1e12F) {
      ASSERT_NO_FATAL_FAILURE(check(number));
    }
    ASSERT_NO_FATAL_FAILURE(check(static_cast<float>(random()) / 1e4F));
  }
}

TEST(Printable, EndsAtTheWidthOrAtAZeroByte) {
  EXPECT_EQ(printable({"abc\0def", 7}, 5), "abc");
  EXPECT_EQ(printable({"abcdef", -1}, 4), "abcd");
  EXPECT_EQ(printable({}, 4), "");
}

}  // namespace
}  // namespace varn::test
