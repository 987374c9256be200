// The exported helpers.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <ctime>

#include "records/traced.h"

// The library's look at the clock, which a test moves on.
static std::atomic<std::time_t> clock_ahead{0};
extern "C" __attribute__((visibility("default"))) std::time_t time(std::time_t* out) noexcept {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const std::time_t second = now.tv_sec + clock_ahead;
  if (out != nullptr) *out = second;
  return second;
}

namespace varn::test {
namespace {

using Helpers = RecordTest;

TEST_F(Helpers, AdmissionAnswersForEveryByte) {
  const std::string types = "129BCEIQVX";
  EXPECT_TRUE(collector.run([&] {
    const auto expect_all = [&](int rc_of_type, int rc_of_others, const char* when) {
      for (int byte = 0; byte < 256; ++byte) {
        const bool is_type = types.find(static_cast<char>(byte)) != types.npos;
        const int rc = is_type ? rc_of_type : rc_of_others;
        ASSERT_EQ(check_gvar(byte), rc) << when << ' ' << byte;
        ASSERT_EQ(check_gvar(byte | 0x4100), rc) << "only the low byte counts";
        ASSERT_EQ(check_gvar(byte - 256), rc) << "only the low byte counts";
      }
    };
    TRAN_LOGF_QUE_INFO& tuning = collector.que_info();
    expect_all(103, 103, "before the start");
    ASSERT_EQ(TRAN_INIT(), 0);
    expect_all(0, 0, "started");
    tuning.log_flag_set = 0;
    expect_all(100, 0, "all kinds off");
    TRAN_SET_SVCTIMEOUT(0);
    expect_all(126, 126, "after a time-out");
    for (const int que_cnt : {0, -1, 17, INT32_MAX}) {
      tuning.que_cnt = que_cnt;
      expect_all(101, 101, "a wrong queue count");
    }
    tuning.magic_code = 0xAAAAAAAB;
    expect_all(99, 99, "not ready");
    tuning.magic_code = kMagicReady;
    tuning.que_cnt = 1;
    EXPECT_EQ(TRAN_DONE(), 0);
    expect_all(103, 103, "stopped");
  }));
}

TEST_F(Helpers, EachKindIsAdmittedByItsOwnBit) {
  struct {
    char letter;
    int bit;
    std::string_view types;
  } const cases[] = {{'S', 0x01, "12"}, {'E', 0x02, "9E"}, {'V', 0x04, "V"}, {'B', 0x08, "B"},
                     {'C', 0x10, "C"},  {'I', 0x20, "I"},  {'X', 0x40, "X"}, {'Q', 0x80, "Q"}};
  trace([&] {
    for (const auto& c : cases) {
      const char letters[] = {c.letter, '\0'};
      EXPECT_EQ(get_log_flag_set(letters), c.bit) << c.letter;
      collector.que_info().log_flag_set = static_cast<std::uint8_t>(c.bit);
      for (const char type : std::string_view("129BCEIQVX"))
        EXPECT_EQ(check_gvar(type), c.types.find(type) != c.types.npos ? 0 : 100)
            << c.letter << ' ' << type;
    }
  });
  EXPECT_EQ(get_log_flag_set("SEQ"), 0x83);
  EXPECT_EQ(get_log_flag_set("QXICBVES"), 0xFF);
  EXPECT_EQ(get_log_flag_set("s e1,ZS S"), 0x01);
  EXPECT_EQ(get_log_flag_set(""), 0);
  EXPECT_EQ(get_log_flag_set(nullptr), 0);
}

TEST_F(Helpers, AnErrorClassIsSetFromCodeCommaClass) {
  struct {
    const char* text;
    int rc, from, to, rc_class;  // the magnitudes set, and to what
  } const cases[] = {
      {"-5,1", 0, 5, 5, 1},
      {"5,2", 0, 5, 5, 2},
      {"0,1", 0, 0, 0, 1},
      {"-127,2", 0, 127, 127, 2},
      {"128,2", 0, 0, 127, 2},
      {"-128,1", 0, 0, 127, 1},
      {"5,3", -1, 0, -1, 0},
      {"5,12", -1, 0, -1, 0},
      {"5,x", -1, 0, -1, 0},
      {",1", -1, 0, -1, 0},
      {"129,0", -1, 0, -1, 0},
      {"-129,0", -1, 0, -1, 0},
      {"5", -1, 0, -1, 0},
      {"5,", -1, 0, -1, 0},
      {"5,-1", -1, 0, -1, 0},
      {"five,1", -1, 0, -1, 0},
      {"4294967301,1", -1, 0, -1, 0},
      {"", -1, 0, -1, 0},
      {nullptr, -1, 0, -1, 0},
  };
  EXPECT_EQ(set_fst_err_rc_set("5,1"), -1) << "not started";
  trace([&] {
    auto& classes = collector.que_info().fst_err_rc_set;
    for (const auto& c : cases) {
      SCOPED_TRACE(c.text == nullptr ? "null" : c.text);
      std::fill(std::begin(classes), std::end(classes), std::int8_t{0});
      EXPECT_EQ(set_fst_err_rc_set(c.text), c.rc);
      for (int i = 0; i < 128; ++i)
        ASSERT_EQ(classes[i], i >= c.from && i <= c.to ? c.rc_class : 0) << i;
    }
  });
}

TEST_F(Helpers, AFinishedCallHasTheErrorClassOfItsNegativeCode) {
  struct {
    std::int32_t status, rc;
    int error_class;
    std::int32_t rc_after;
  } const cases[] = {
      {0, -5, 2, -5},     {0, 5, 0, 5},       {0, 0, 0, 0},
      {0, -127, 1, -127}, {0, -128, 0, -128}, {0, INT32_MIN, 0, INT32_MIN},
      {0, -6, 0, -6},     {0, -7, 0, -7},     {0, -8, 0, -8},
      {-1, -5, 0, 99},    {1, -5, 2, -5},
  };
  trace([&] {
    auto& classes = collector.que_info().fst_err_rc_set;
    std::fill(std::begin(classes), std::end(classes), std::int8_t{0});
    classes[5] = 2;
    classes[127] = classes[0] = 1;
    classes[7] = 3;  // no class
    classes[8] = -1;
    for (const auto& c : cases) {
      tran_call_rc result = {c.status, c.rc};
      EXPECT_EQ(is_err_rc(&result), c.error_class) << c.status << ' ' << c.rc;
      EXPECT_EQ(result.rc, c.rc_after);
    }
  });
  EXPECT_EQ(is_err_rc(nullptr), 0);
}

TEST_F(Helpers, AFieldIsCutOrPaddedAndClosedByABlank) {
  struct {
    const char* name;
    Arg src;
    int width, copy;
    const char* field;  // of "......." what it becomes
  } const cases[] = {
      {"no source", nullptr, 4, 1, "     .."},
      {"no source, not copied", {nullptr, 9}, 4, 0, "     .."},
      {"shorter", {"ab", 2}, 4, 1, "ab   .."},
      {"as long", {"abcd", 4}, 4, 1, "abcd .."},
      {"longer", {"abcdef", 6}, 4, 1, "abcd .."},
      {"zero-ended", {"ab", -1}, 4, 1, "ab   .."},
      {"zero-ended and longer", {"abcdef", -7}, 4, 1, "abcd .."},
      {"empty", {"abc", 0}, 4, 1, "     .."},
      {"shorter, not copied", {"ab", 2}, 4, 0, "..   .."},
      {"longer, not copied", {"abcdef", 6}, 4, 0, ".... .."},
      {"no width", {"ab", 2}, 0, 1, " ......"},
      {"at the end of its memory", {guarded("abcd"), -1}, 4, 1, "abcd .."},
      {"of the largest length", {guarded("abcd"), INT32_MAX}, 4, 1, "abcd .."},
      {"no valid width", {"ab", 2}, -1, 1, "......."},
  };
  for (const auto& c : cases) {
    char field[] = ".......";
    set_log_field(c.src.text, c.src.len, field, c.width, c.copy);
    EXPECT_STREQ(field, c.field) << c.name;
  }
  set_log_field("ab", 2, nullptr, 4, 1);
}

TEST_F(Helpers, AChangedConfigurationFileIsReportedOnceAndLookedAtOnceAMinute) {
  const std::string file = collector.home() / "agent.cfg";
  const auto touch = [&](std::time_t second) {
    const timespec times[] = {{second, 0}, {second, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  };
  trace([&] {
    touch(1'000'000);
    EXPECT_EQ(read_config(), 0) << "the first look only remembers";
    touch(2'000'000);
    clock_ahead = 55;
    EXPECT_EQ(read_config(), 0) << "within the minute";
    clock_ahead = 61;
    EXPECT_EQ(read_config(), 1);
    EXPECT_EQ(read_config(), 0);
    clock_ahead = 130;
    EXPECT_EQ(read_config(), 0) << "unchanged since";
    touch(1'500'000);
    clock_ahead = 200;
    EXPECT_EQ(read_config(), 1) << "another time, earlier or later";
    ASSERT_EQ(unlink(file.c_str()), 0);
    clock_ahead = 300;
    EXPECT_EQ(read_config(), 0);
  });
  EXPECT_EQ(collector.count_logged(euc_kr("@@@ Config-File 수정 확인")), 2);
}

}  // namespace
}  // namespace varn::test
