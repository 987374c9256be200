// Files of whole telegrams: what is whole is read, and what is not is told with its place.
#include "collector/tong_file.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/support.h"

namespace varn {
namespace {

// A record as the writer of a traced process appends it, by the documented widths.
std::string record_text(std::string_view gid, const std::string& telegram, char direction = 'S') {
  const std::string length = std::to_string(telegram.size());
  return std::string(gid) + std::string(30 - gid.size(), ' ') + "1785553200000007" +
         "apphost01      " + direction + std::string(6 - length.size(), '0') + length + telegram +
         "\n";
}

// What was found: a record as its GID with its direction, damage as "offset+size", a tail as
// "tail offset+size".
struct Found {
  std::vector<std::string> parts;
  std::vector<std::string> telegrams;
};
using Parts = std::vector<std::string>;

class TongFile : public testing::Test {
 protected:
  Found read(const std::string& content) {
    test::write_file(path_, content);
    Found found;
    std::string error;
    const auto on_record = [&](const TongRecord& record) {
      found.parts.push_back(std::string(record.gid) + record.direction);
      found.telegrams.emplace_back(record.telegram);
      EXPECT_EQ(record.host_name, "apphost01");
      EXPECT_EQ(record.time_us, 1'785'553'200'000'007);
      EXPECT_EQ(content.compare(record.offset, record.gid.size(), record.gid), 0);
    };
    const auto on_damage = [&](const TongDamage& damage) {
      found.parts.push_back((damage.is_tail ? "tail " : "") + std::to_string(damage.offset) + "+" +
                            std::to_string(damage.size));
    };
    EXPECT_TRUE(read_tong_file(path_, {on_record, on_damage}, error)) << error;
    return found;
  }

  const test::TempDir dir_;
  const std::string path_ = dir_ / "tong_log_20260801_gateway_4711.dat";
  const std::string telegram_ = std::string(600, 't');
  const std::string a_ = record_text("A", telegram_);
  const std::string b_ = record_text("B", telegram_, 'F');
  const std::string c_ = record_text("C", telegram_, 'U');
};

TEST_F(TongFile, IsReadByItsLengthsWhateverItsTelegramsHold) {
  std::string every_byte;
  for (int i = 0; i < 1024; ++i) every_byte += static_cast<char>(i);
  const std::vector<std::string> telegrams = {
      telegram_, "", every_byte, a_ + b_ + c_, "\n" + a_.substr(0, 100), std::string(999'999, '9')};
  std::string content;
  Parts parts;
  for (int round = 0; round < 8; ++round) {  // more than is held at once
    for (const std::string& telegram : telegrams) {
      content += record_text("G", telegram, "SFU"[round % 3]);
      parts.push_back(std::string("G") + "SFU"[round % 3]);
    }
  }
  const Found found = read(content);
  EXPECT_EQ(found.parts, parts);
  for (std::size_t i = 0; i < found.telegrams.size(); ++i)
    EXPECT_TRUE(found.telegrams[i] == telegrams[i % telegrams.size()]) << i;
}

TEST_F(TongFile, EndsWithATornRecordWhereverThatIsCut) {
  EXPECT_EQ(read(a_ + b_).parts, (Parts{"AS", "BF"}));
  for (std::size_t size = 1; size < b_.size(); size += test::kOneInAlone)
    ASSERT_EQ(read(a_ + b_.substr(0, size)).parts,
              (Parts{"AS", "tail 669+" + std::to_string(size)}));
}

TEST_F(TongFile, GoesOnBehindWhatIsDamaged) {
  const auto with = [](std::string text, std::size_t at, char byte) {
    text[at] = byte;
    return text;
  };
  const std::string zeros(5'000'000, '\0');
  const struct {
    const char* name;
    std::string content;
    Parts parts;
  } cases[] = {
      {"empty", "", {}},
      {"garbage", std::string(5000, 'x'), {"0+5000"}},
      {"zeros behind a record", a_ + zeros, {"AS", "669+5000000"}},
      {"garbage before and between",
       zeros + a_ + b_ + "??" + c_,
       {"0+5000000", "AS", "BF", "5001338+2", "CU"}},
      {"no second", a_ + with(b_, 30, ' ') + c_ + a_, {"AS", "669+669", "CU", "AS"}},
      {"no microsecond", a_ + with(b_, 45, '-') + c_ + a_, {"AS", "669+669", "CU", "AS"}},
      {"no direction", a_ + with(b_, 61, 'X') + c_ + a_, {"AS", "669+669", "CU", "AS"}},
      {"no length",
       a_ + with(with(b_, 67, ':'), 68, '\n') + c_ + a_,
       {"AS", "669+669", "CU", "AS"}},
      {"a length too short", a_ + with(b_, 65, '5') + c_ + a_, {"AS", "669+669", "CU", "AS"}},
      {"a giant length", a_ + with(b_, 62, '9') + c_ + a_, {"AS", "669+669", "CU", "AS"}},
      {"no newline", a_ + with(b_, 668, 't') + c_ + a_, {"AS", "669+669", "CU", "AS"}},
      {"torn in the middle", a_ + b_.substr(0, 300) + c_ + a_, {"AS", "669+300", "CU", "AS"}},
      {"damage, then a last record", with(b_, 61, 'X') + c_, {"0+669", "CU"}},
      {"damage, then a torn record",
       with(b_, 61, 'X') + c_ + a_.substr(0, 9),
       {"0+669", "CU", "tail 1338+9"}},
      // Whole by itself, but neither a head nor the end stands behind it.
      {"a look-alike in damage",
       with(record_text("L", "." + a_ + "." + telegram_), 61, 'X') + b_ + c_,
       {"0+1340", "BF", "CU"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(read(c.content).parts, c.parts);
  }
}

}  // namespace
}  // namespace varn
