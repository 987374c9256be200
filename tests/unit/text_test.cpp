#include "util/text.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

#include "support/support.h"
#include "util/message.h"

namespace varn::test {
namespace {

TEST(PutPadded, ATextMayOverlapItsField) {
  char buffer[] = "abcdefgh";
  put_padded(buffer + 2, 4, {buffer, 4});
  EXPECT_STREQ(buffer, "ababcdgh");
}

TEST(PutDigits, FillsWithZerosAndShowsTheNearestThatFits) {
  for (const auto& [number, out] : {std::pair{std::int64_t{42}, "00042##"},
                                    {99'999, "99999##"},
                                    {100'000, "99999##"},
                                    {INT64_MAX, "99999##"},
                                    {-1, "00000##"},
                                    {INT64_MIN, "00000##"}}) {
    char field[] = "#######";
    put_digits(field, 5, number);
    EXPECT_STREQ(field, out);
  }
}

TEST(Message, IsCutAtItsCapacity) {
  const volatile std::int64_t least = INT64_MIN;  // known, it makes g++ warn of what is cut off
  Message<16> message;
  message << "a" << 'b' << std::int32_t{-7} << std::int64_t{least} << "more";
  EXPECT_EQ(message.view(), "ab-7-92233720368");
}

TEST(Message, FixedNumbersAreAsPrintfWritesThem) {
  const auto check = [](float number) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "%6.2f", static_cast<double>(number));
    ASSERT_EQ(Message<64>().fixed2(number).view(), expected) << std::hexfloat << number;
  };
  for (int eighths = -8000; eighths <= 8000; ++eighths)  // holds every tie between two hundredths
    ASSERT_NO_FATAL_FAILURE(check(static_cast<float>(eighths) / 8.0F));
  std::mt19937 random(20180518);
  for (int i = 0; i < 300'000; ++i) {
    const auto number = std::bit_cast<float>(static_cast<std::uint32_t>(random()));
    if (std::fabs(number) < 1e12F) {
      ASSERT_NO_FATAL_FAILURE(check(number));
    }
  }
}

}  // namespace
}  // namespace varn::test
