// The bytes of every record kind as a collector receives them: each argument has a value of its
// own, and every place and width is written here by hand.
#include <sched.h>
#include <sys/prctl.h>

#include <ctime>
#include <optional>

#include "records/traced.h"

extern "C" const char* trace_from_c(void);

namespace varn::test {
namespace {

struct Place {
  int at;  // from the record-type byte
  int width;
};

// In the order of the calls' arguments.
constexpr Place kHead[] = {{2, 2}, {5, 1}, {7, 32}, {56, 16}, {89, 8}, {126, 8}, {135, 12}};
constexpr int kGidArg = 2, kSvcIdArg = 3, kDateArg = 5, kTimeArg = 6;
constexpr Place kServiceArgs[] = {{173, 1}, {175, 6},  {182, 3},  {186, 12}, {199, 9}, {209, 7},
                                  {217, 1}, {219, 9},  {229, 8},  {238, 39}, {278, 3}, {282, 3},
                                  {286, 1}, {288, 1},  {290, 12}, {303, 16}, {320, 3}, {324, 4},
                                  {329, 3}, {333, 39}, {373, 1},  {375, 1}};
constexpr Place kInfoArgs[] = {{148, 350}};
constexpr Place kInfoExArgs[] = {{148, 4}, {153, 350}};
constexpr Place kEventArgs[] = {{148, 4}, {153, 12}, {166, 4}, {171, 512}};
constexpr Place kErrInfoArgs[] = {{148, 4}, {153, 12}, {166, 4}, {171, 350}};

struct Kind {
  const char* name;
  char type;
  std::uint32_t length;
  bool is_the_levels;  // GID and service id are, whatever the arguments say
  const char *gid_if_null, *svc_id_if_null;
  std::vector<Place> body;
  std::function<int(const std::vector<Arg>&)> send;
};

template <std::size_t N, typename Function>
auto sender(Function* function) {
  return [function](const std::vector<Arg>& args) {
    std::array<Arg, N> all;
    std::copy_n(args.begin(), N, all.begin());
    return call(function, kThread, all);
  };
}
template <std::size_t N>
std::vector<Place> places(const Place (&body)[N]) {
  std::vector<Place> all(std::begin(kHead), std::end(kHead));
  all.insert(all.end(), std::begin(body), std::end(body));
  return all;
}

constexpr char kLevelGid[] = "GID-OF-THE-SERVICE";
constexpr char kLevelSvcId[] = "SVC-OF-LEVEL";

const Kind kKinds[] = {
    {"start", '1', 377, false, "", "", places(kServiceArgs), sender<29>(TRAN_START)},
    {"end", '2', 377, true, "", "", places(kServiceArgs), sender<29>(TRAN_END)},
    {"error", '9', 377, true, "", "", places(kServiceArgs), sender<29>(TRAN_ERROR)},
    {"information", 'I', 499, false, kLevelGid, kLevelSvcId, places(kInfoArgs),
     sender<8>(TRAN_INFO)},
    {"extended information", 'X', 504, false, kLevelGid, "", places(kInfoExArgs),
     sender<9>(TRAN_INFO_EX)},
    {"event", 'V', 684, false, "", "", places(kEventArgs), sender<11>(TRAN_EVENT)},
    {"error information", 'E', 522, true, "", "", places(kErrInfoArgs), sender<11>(TRAN_ERRINFO)},
};

// How each argument is given. The text ends where its memory ends.
constexpr int kWhole = -1, kNull = -2;
constexpr int kTextLength = 0;
struct Form {
  const char* name;
  int chars;           // of its field: kWhole, a number, or kNull
  std::string behind;  // them in the text
  int len;             // as given; kTextLength for the characters alone
};
const Form kForms[] = {
    {"texts as long as their fields", kWhole, "~", kTextLength},
    {"longer texts, zero-ended", kWhole, std::string("~~~~~\0", 6), -1},
    {"longer texts of a given length", kWhole, std::string(512, '~'), 1024},
    {"texts of one character, zero-ended", 1, std::string("\0", 1), -1},
    {"texts of no character", 0, "~", kTextLength},
    {"null texts", kNull, "", INT32_MAX},
    {"texts of the largest length", kWhole, "", INT32_MAX},
    {"texts of the smallest length", kWhole, "", INT32_MIN},
    {"texts without an end", kWhole, "", -1},
};

char letter_of(std::size_t argument) { return "ABCDEFGHIJKLMNOPQRSTUVWXYZabc"[argument]; }

void put(std::string& bytes, Place place, const std::string& text) {
  bytes.replace(static_cast<std::size_t>(12 + place.at), static_cast<std::size_t>(place.width),
                padded(text, static_cast<std::size_t>(place.width)));
}

std::string digits(std::int64_t number, int width) {
  std::string text = std::to_string(number);
  return std::string(static_cast<std::size_t>(width) - text.size(), '0') + text;
}

std::optional<std::string> field_in(const Form& form, std::size_t argument, int width) {
  if (form.chars == kNull) return std::nullopt;
  return std::string(static_cast<std::size_t>(form.chars == kWhole ? width : form.chars),
                     letter_of(argument));
}
Arg arg_in(const Form& form, std::size_t argument, int width) {
  const auto field = field_in(form, argument, width);
  if (!field) return {nullptr, form.len};
  return {guarded(*field + form.behind),
          form.len == kTextLength ? static_cast<int>(field->size()) : form.len};
}

std::string bytes_of(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

testing::AssertionResult same_bytes(const std::string& actual, const std::string& expected) {
  for (std::size_t i = 0; i < expected.size(); ++i)
    if (actual.at(i) != expected[i])
      return testing::AssertionFailure()
             << "at view offset " << static_cast<int>(i) - 12 << ": \"" << actual.substr(i, 40)
             << "\" instead of \"" << expected.substr(i, 40) << '"';
  return testing::AssertionSuccess();
}

// Of a record's date and time in Korea.
std::int64_t moment_us(const std::string& bytes) {
  tm local = {};
  long usec = 0;
  EXPECT_EQ(std::sscanf(bytes.c_str() + 12 + 126, "%4d%2d%2d %2d%2d%2d%6ld", &local.tm_year,
                        &local.tm_mon, &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec,
                        &usec),
            7);
  local.tm_year -= 1900;
  local.tm_mon -= 1;
  return (timegm(&local) - 9 * 3600) * 1'000'000 + usec;
}

class Golden : public RecordTest {
 protected:
  Golden() { collector.environment["TZ"] = "KST-9"; }

  // What every message of the thread holds that no argument gives.
  std::string blank_message(char type, std::uint32_t length, const std::string& host) {
    std::string bytes(8 + 784, ' ');
    std::memcpy(bytes.data() + 8, &length, sizeof length);
    bytes[12] = type;
    put(bytes, {40, 15}, "golden-process");
    put(bytes, {73, 15}, host);
    put(bytes, {89, 8}, digits(pid(), 8));
    put(bytes, {98, 15}, "000000000004660");
    put(bytes, {114, 5}, "00052");
    std::int32_t pidx = 0;
    std::memcpy(&pidx, &entry(), sizeof pidx);
    put(bytes, {120, 5}, digits(pidx, 5));
    if (length == 377) {
      put(bytes, {148, 10}, "0000000000");
      put(bytes, {159, 10}, "0000000000");
      put(bytes, {170, 2}, "01");
    }
    return bytes;
  }

  static std::string host() {
    char name[256] = "";
    gethostname(name, sizeof name);
    return std::string(name).substr(0, 15);
  }
};

TEST_F(Golden, EveryKindHasEachArgumentAtItsPlaceHoweverItIsGiven) {
  for (const Kind& kind : kKinds) {
    for (const Form& form : kForms) {
      SCOPED_TRACE(std::string(kind.name) + ": " + form.name);
      const std::int64_t before = clock_us();
      const std::vector<Record> records = trace([&] {
        prctl(PR_SET_NAME, "golden-process");
        ASSERT_EQ(TRAN_DONE(), 0);
        ASSERT_EQ(TRAN_INIT(), 0);
        if (kind.type != '1') {
          ASSERT_EQ(start({.gid = kLevelGid, .svc_id = kLevelSvcId}), 0);
        }
        std::vector<Arg> args;
        for (std::size_t i = 0; i < kind.body.size(); ++i)
          args.push_back(arg_in(form, i, kind.body[i].width));
        ASSERT_EQ(kind.send(args), 0);
      });
      ASSERT_FALSE(records.empty());
      const std::string actual = bytes_of(records.back());

      std::string expected = blank_message(kind.type, kind.length, host());
      for (std::size_t i = 0; i < kind.body.size(); ++i) {
        const Place place = kind.body[i];
        const auto text = field_in(form, i, place.width);
        if (i == kGidArg && kind.is_the_levels)
          put(expected, place, kLevelGid);
        else if (i == kSvcIdArg && kind.is_the_levels)
          put(expected, place, kLevelSvcId);
        else if (text)
          put(expected, place, *text);
        else if (i == kGidArg)
          put(expected, place, kind.gid_if_null);
        else if (i == kSvcIdArg)
          put(expected, place, kind.svc_id_if_null);
        else if (i == kDateArg || i == kTimeArg)
          put(expected, place,
              actual.substr(static_cast<std::size_t>(12 + place.at),
                            static_cast<std::size_t>(place.width)));
      }
      if (form.chars == kNull) {
        // No time given: the current one, and for an end a response time.
        EXPECT_GE(moment_us(actual), before);
        EXPECT_LE(moment_us(actual), clock_us());
        if (kind.type == '2') put(expected, {148, 10}, actual.substr(12 + 148, 10));
      }
      EXPECT_TRUE(same_bytes(actual, expected));
    }
  }
}

TEST_F(Golden, WhatALongerRecordOrAGivenProcessIdLeftBehindIsGoneFromTheNext) {
  const std::string text(512, '#');
  const auto records = trace([&] {
    const Arg message(text.c_str());
    EXPECT_EQ(event({.gid = "G", .svc_id = "S", .pid_str = "87654321", .message = message}), 0);
    EXPECT_EQ(errinfo({.message = message}), TRAN_RC_DEPTH);
    EXPECT_EQ(info_ex({.gid = "G", .svc_id = "S", .message = message}), 0);
    EXPECT_EQ(info({.gid = "G", .svc_id = "S", .message = message}), 0);
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
  });
  ASSERT_EQ(types_of(records), "VXI1");
  const std::size_t lengths[] = {684, 504, 499, 377};
  for (std::size_t i = 0; i < 4; ++i) {
    SCOPED_TRACE(types_of(records)[i]);
    const std::string bytes = bytes_of(records[i]);
    EXPECT_EQ(bytes.substr(12 + lengths[i]), std::string(780 - lengths[i], ' '));
    EXPECT_EQ(bytes.substr(12 + 89, 8), i == 0 ? "87654321" : digits(pid(), 8));
  }
}

TEST_F(Golden, ThreadNumberBucketAndEntryStandInTheHeader) {
  struct {
    int thread;
    std::string_view tid, bucket;
  } const cases[] = {
      {0, "000000000000000", "00000"},         {255, "000000000000255", "00255"},
      {0x4200, "000000000016896", "00066"},    {0x10000, "000000000065536", "00000"},
      {INT32_MAX, "000002147483647", "00255"},
  };
  const auto records = trace([&] {
    for (const auto& c : cases) EXPECT_EQ(info({.gid = "G", .svc_id = "S"}, c.thread), 0);
  });
  ASSERT_EQ(records.size(), std::size(cases));
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string bytes = bytes_of(records[i]);
    EXPECT_EQ(bytes.substr(12 + 98, 15), cases[i].tid);
    EXPECT_EQ(bytes.substr(12 + 114, 5), cases[i].bucket);
    EXPECT_EQ(bytes.substr(12 + 120, 5), digits(entry(cases[i].thread).pidx, 5));
  }
}

TEST_F(Golden, ALongHostNameIsCutAndDoesNotStopTheStart) {
  const auto records = trace([] {
    ASSERT_EQ(unshare(CLONE_NEWUTS), 0) << "may not have a host name of its own";
    ASSERT_EQ(TRAN_DONE(), 0);
    const std::string name = "container-" + std::string(50, 'x');
    ASSERT_EQ(sethostname(name.c_str(), name.size()), 0);
    ASSERT_EQ(TRAN_INIT(), 0);
    EXPECT_EQ(info({.gid = "G", .svc_id = "S"}), 0);
  });
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(bytes_of(records.back()).substr(12 + 73, 16), "container-xxxxx ");
}

TEST_F(Golden, TheSharedEntryShowsTheRunningServiceAtItsPlaces) {
  std::int64_t before = time(nullptr);
  trace([] {
    EXPECT_EQ(start({.gid = "GID-1",
                     .svc_id = "SVC-1",
                     .chnl_typ_cd = "ICC",
                     .recv_svc_cd = "RECV-CODE-12345"}),
              0);
    EXPECT_EQ(start({.gid = "GID-2", .svc_id = "SVC-2", .chnl_typ_cd = "ICT"}), 0);
  });
  const auto* const raw = reinterpret_cast<const char*>(&entry());
  struct {
    std::size_t at;
    std::string text;
  } const cases[] = {
      {16, padded("GID-1", 32)},
      {49, padded("SVC-1", 16)},
      {66, "RECV-CODE-12"},
      {79, padded("GID-1", 32) + '\0' + padded("SVC-1", 16)},
      {142, padded("GID-2", 32) + '\0' + padded("SVC-2", 16)},
      {709, "\2C"},
      {780, digits(pid(), 8) + '\0' + "000000000004660" + '\0' + "00052"},
      {896, "f\1"},
      {900, "\12"},
  };
  for (const auto& c : cases) EXPECT_EQ(std::string(raw + c.at, c.text.size()), c.text) << c.at;
  for (const std::size_t at : {864, 60096}) {  // start of the service, and its mark
    std::int64_t second = 0;
    std::memcpy(&second, raw + at, sizeof second);
    EXPECT_GE(second, before) << at;
    EXPECT_LE(second, time(nullptr)) << at;
  }
}

TEST_F(Golden, AProgramInCTracesAServiceFromStartToEnd) {
  EXPECT_TRUE(collector.run([] { EXPECT_STREQ(trace_from_c(), nullptr); }));
  const auto records = collector.read_all();
  ASSERT_EQ(types_of(records), "V192I");
  const std::string body =
      "0000000000 0000000000 01 1 AA0001 WEB RECV         SCRN      EMP     0 ERRCD     00000100 "
      "::1                                     FST TRM S A RSLT         EAI              DSB INST "
      "BIZ MEDIUM                                  x y ";
  for (std::size_t i = 1; i < 4; ++i)
    EXPECT_EQ(bytes_of(records[i]).substr(12 + 148, 377 - 148), body);
}

}  // namespace
}  // namespace varn::test
