// The exported helpers.
#include <fcntl.h>
#include <sys/stat.h>

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

TEST_F(Helpers, AdmissionAnswersForEveryByteAndEachKindByItsOwnBit) {
  const std::string letters = "SEVBCIXQ";
  const char* const types[] = {"12", "9E", "V", "B", "C", "I", "X", "Q"};
  EXPECT_TRUE(collector.run([&] {
    const auto expect_all = [](int rc_of_type, int rc_of_others, const char* of_types = "") {
      for (int byte = 0; byte < 256; ++byte) {
        const auto is_in = [&](const char* set) { return byte != 0 && std::strchr(set, byte); };
        const int rc = is_in("129BCEIQVX") && !is_in(of_types) ? rc_of_type : rc_of_others;
        ASSERT_EQ(check_gvar(byte), rc) << byte;
        ASSERT_EQ(check_gvar(byte | 0x4100), rc) << "only the low byte counts";
      }
    };
    TRAN_LOGF_QUE_INFO& tuning = collector.que_info();
    expect_all(103, 103);
    ASSERT_EQ(TRAN_INIT(), 0);
    for (std::size_t bit = 0; bit < letters.size(); ++bit) {
      tuning.log_flag_set = get_log_flag_set(letters.substr(bit, 1).c_str());
      EXPECT_EQ(tuning.log_flag_set, 1 << bit);
      expect_all(100, 0, types[bit]);
    }
    TRAN_SET_SVCTIMEOUT(0);
    expect_all(126, 126);
    for (const int que_cnt : {0, -1, 17}) {
      tuning.que_cnt = que_cnt;
      expect_all(101, 101);
    }
    tuning.magic_code = 0xAAAAAAAB;
    expect_all(99, 99);
    EXPECT_EQ(TRAN_DONE(), 0);
    expect_all(103, 103);
  }));
  EXPECT_EQ(get_log_flag_set("s e1,ZS S"), 0x01);
  EXPECT_EQ(get_log_flag_set("QXICBVES"), 0xFF);
  EXPECT_EQ(get_log_flag_set(nullptr), 0);
}

TEST_F(Helpers, AnErrorClassIsSetFromCodeCommaClassAndIsThatOfANegativeCode) {
  struct {
    const char* text;
    int from, to, rc_class;  // the magnitudes set, and to what
  } const settings[] = {{"-5,1", 5, 5, 1},       {"5,2", 5, 5, 2},     {"0,1", 0, 0, 1},
                        {"-127,2", 127, 127, 2}, {"128,2", 0, 127, 2}, {"-128,0", 0, 127, 0}};
  struct {
    int status, rc, error_class, rc_after;
  } const calls[] = {
      {0, -5, 2, -5},     {0, 5, 0, 5},   {0, 0, 0, 0},   {0, -127, 1, -127},
      {0, -128, 0, -128}, {0, -7, 0, -7}, {0, -8, 0, -8}, {0, INT32_MIN, 0, INT32_MIN},
      {-1, -5, 0, 99},    {1, -5, 2, -5},
  };
  EXPECT_EQ(set_fst_err_rc_set("5,1"), -1) << "not started";
  EXPECT_EQ(is_err_rc(nullptr), 0);
  trace([&] {
    auto& classes = collector.que_info().fst_err_rc_set;
    for (const auto& c : settings) {
      std::fill(std::begin(classes), std::end(classes), std::int8_t{c.rc_class == 0});
      EXPECT_EQ(set_fst_err_rc_set(c.text), 0);
      for (int i = 0; i < 128; ++i)
        ASSERT_EQ(classes[i], i >= c.from && i <= c.to ? c.rc_class : 0) << c.text << ' ' << i;
    }
    classes[5] = 2;
    classes[127] = classes[0] = 1;
    classes[7] = 3;  // no class
    classes[8] = -1;
    for (const char* const text : {"", "5", "5,", "5,/", "5,3", "5,12", ",1", "five,1", "5-,1",
                                   "129,0", "-129,0", "4294967301,1"})
      EXPECT_EQ(set_fst_err_rc_set(text), -1) << text;
    EXPECT_EQ(set_fst_err_rc_set(nullptr), -1);
    for (const auto& c : calls) {
      tran_call_rc result = {c.status, c.rc};
      EXPECT_EQ(is_err_rc(&result), c.error_class) << c.status << ' ' << c.rc;
      EXPECT_EQ(result.rc, c.rc_after);
    }
  });
}

TEST_F(Helpers, AFieldIsCutOrPaddedAndClosedByABlank) {
  struct {
    Arg src;
    int width, copy;
    const char* field;  // of "......." what it becomes
  } const cases[] = {
      {{nullptr, 9}, 4, 0, "     .."},
      {{"abcdef", 6}, 4, 1, "abcd .."},
      {{"ab", -1}, 4, 1, "ab   .."},
      {{"abc", 0}, 4, 1, "     .."},
      {{"ab", 2}, 4, 0, "..   .."},
      {{"ab", 2}, 0, 1, " ......"},
      {{"ab", 2}, -1, 1, "......."},
      {{guarded("abcd"), -1}, 4, 1, "abcd .."},
      {{guarded("abcd"), INT32_MAX}, 4, 1, "abcd .."},
  };
  for (const auto& c : cases) {
    char field[] = ".......";
    set_log_field(c.src.text, c.src.len, field, c.width, c.copy);
    EXPECT_STREQ(field, c.field) << &c - cases;
  }
  set_log_field("ab", 2, nullptr, 4, 1);
}

TEST_F(Helpers, AChangedConfigurationFileIsReportedOnceAndLookedAtOnceAMinute) {
  const std::string file = collector.home() / "agent.cfg";
  struct {
    std::time_t changed, ahead;
    int rc;
  } const looks[] = {
      {1'000'000, 0, 0},   // the first only remembers
      {2'000'000, 55, 0},  // within the minute
      {2'000'000, 61, 1},  {2'000'000, 130, 0},
      {1'500'000, 200, 1},  // another time, earlier or later
  };
  trace([&] {
    for (const auto& look : looks) {
      const timespec times[] = {{look.changed, 0}, {look.changed, 0}};
      ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
      clock_ahead = look.ahead;
      EXPECT_EQ(read_config(), look.rc) << look.ahead;
    }
    ASSERT_EQ(unlink(file.c_str()), 0);
    clock_ahead = 300;
    EXPECT_EQ(read_config(), 0);
  });
  EXPECT_EQ(collector.count_logged(euc_kr("@@@ Config-File 수정 확인")), 2);
}

}  // namespace
}  // namespace varn::test
