// The bytes of every record kind as a collector receives them: each argument has a value of its
// own, and every place and width is written here by hand.
#include <sys/prctl.h>

#include <ctime>
#include <type_traits>

#include "records/traced.h"

extern "C" const char* trace_from_c(void);

namespace varn::test {
namespace {

struct Place {
  int at;  // from the record-type byte
  int width;
};

// In the order of the arguments; a place without a width is of one that the kind does not take.
constexpr Place kHead[] = {{2, 2}, {5, 1}, {7, 32}, {56, 16}, {89, 8}, {126, 8}, {135, 12}};
constexpr int kGidArg = 2, kSvcIdArg = 3;
const std::vector<Place> kServiceArgs = {
    {173, 1}, {175, 6},  {182, 3}, {186, 12}, {199, 9}, {209, 7}, {217, 1},  {219, 9},
    {229, 8}, {238, 39}, {278, 3}, {282, 3},  {286, 1}, {288, 1}, {290, 12}, {303, 16},
    {320, 3}, {324, 4},  {329, 3}, {333, 39}, {373, 1}, {375, 1}};

using Args = std::array<Arg, 29>;

template <typename Named>
auto sender(int (*send)(const Named&, int)) {
  return [send](const Args& args) {
    Named named;
    static_assert(sizeof named <= sizeof args && std::is_trivially_copyable_v<Named>);
    std::memcpy(static_cast<void*>(&named), args.data(), sizeof named);
    return send(named, kThread);
  };
}

const std::string kLevelGid = "GID-OF-THE-SERVICE", kLevelSvcId = "SVC-OF-LEVEL";

struct Kind {
  char type;
  std::uint32_t length;
  bool is_the_levels;  // GID and service id are, whatever the arguments say
  std::string gid_if_null, svc_id_if_null;
  std::vector<Place> body;
  std::function<int(const Args&)> send;
};
const Kind kKinds[] = {
    {'1', 377, false, "", "", kServiceArgs, sender(start)},
    {'2', 377, true, "", "", kServiceArgs, sender(end)},
    {'9', 377, true, "", "", kServiceArgs, sender(error)},
    {'I', 499, false, kLevelGid, kLevelSvcId, {{}, {}, {}, {148, 350}}, sender(info)},
    {'X', 504, false, kLevelGid, "", {{148, 4}, {}, {}, {153, 350}}, sender(info_ex)},
    {'V', 684, false, "", "", {{148, 4}, {153, 12}, {166, 4}, {171, 512}}, sender(event)},
    {'E', 522, true, "", "", {{148, 4}, {153, 12}, {166, 4}, {171, 350}}, sender(errinfo)},
};

// How each argument is given: characters of its field, and what stands behind them in the text,
// which ends where its memory ends.
constexpr int kWhole = -1, kNull = -2;
constexpr int kTextLength = 0;
struct Form {
  const char* name;
  int chars;  // kWhole, a number, or kNull
  std::string behind;
  int len;  // as given; kTextLength for the characters alone
};
const Form kForms[] = {
    {"texts as long as their fields", kWhole, "~", kTextLength},
    {"longer texts, zero-ended", kWhole, std::string("~~~~~\0", 6), -1},
    {"texts of one character, zero-ended", 1, std::string("\0", 1), -1},
    {"texts of no character", 0, "~", kTextLength},
    {"null texts", kNull, "", INT32_MAX},
    {"texts of the largest length", kWhole, "", INT32_MAX},
    {"texts of the smallest length", kWhole, "", INT32_MIN},
};

std::string field_in(const Form& form, std::size_t argument, int width) {
  const char letter = "ABCDEFGHIJKLMNOPQRSTUVWXYZabc"[argument];
  const int chars = form.chars == kWhole ? width : std::min(form.chars, width);
  return std::string(static_cast<std::size_t>(chars), letter);
}
Arg arg_in(const Form& form, std::size_t argument, int width) {
  if (form.chars == kNull) return {nullptr, form.len};
  const std::string field = field_in(form, argument, width);
  return {guarded(field + form.behind),
          form.len == kTextLength ? static_cast<int>(field.size()) : form.len};
}

void put(std::string& bytes, Place place, const std::string& text) {
  bytes.replace(static_cast<std::size_t>(12 + place.at), static_cast<std::size_t>(place.width),
                padded(text, static_cast<std::size_t>(place.width)));
}

std::string digits(std::int64_t number, int width) {
  std::string text = std::to_string(number);
  return std::string(static_cast<std::size_t>(width) - text.size(), '0') + text;
}

std::string bytes_of(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

// The date and time of a record, in Korea.
std::string stamp_of(std::int64_t us) {
  const std::time_t second = us / 1'000'000 + 9 * 3600;
  char text[16];
  std::strftime(text, sizeof text, "%Y%m%d %H%M%S", std::gmtime(&second));
  return text + digits(us % 1'000'000, 6);
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
};

TEST_F(Golden, EveryKindHasEachArgumentAtItsPlaceHoweverItIsGiven) {
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  for (const Kind& kind : kKinds) {
    std::vector<Place> places(std::begin(kHead), std::end(kHead));
    places.insert(places.end(), kind.body.begin(), kind.body.end());
    for (const Form& form : kForms) {
      SCOPED_TRACE(std::string(1, kind.type) + ": " + form.name);
      const std::string before = stamp_of(clock_us());
      const std::vector<Record> records = trace([&] {
        prctl(PR_SET_NAME, "golden-process");
        ASSERT_EQ(TRAN_DONE(), 0);
        ASSERT_EQ(TRAN_INIT(), 0);
        if (kind.type != '1') {
          ASSERT_EQ(start({.gid = kLevelGid.c_str(), .svc_id = kLevelSvcId.c_str()}), 0);
        }
        Args args;
        for (std::size_t i = 0; i < places.size(); ++i) args[i] = arg_in(form, i, places[i].width);
        ASSERT_EQ(kind.send(args), 0);
      });
      ASSERT_FALSE(records.empty());
      const std::string actual = bytes_of(records.back());
      std::string expected = blank_message(kind.type, kind.length, std::string(host).substr(0, 15));
      if (form.chars != kNull) {
        for (std::size_t i = 0; i < places.size(); ++i)
          put(expected, places[i], field_in(form, i, places[i].width));
      } else {
        // No time given: the current one, and for an end a response time.
        const std::string stamp = actual.substr(12 + 126, 21);
        EXPECT_GE(stamp, before);
        EXPECT_LE(stamp, stamp_of(clock_us()));
        put(expected, {126, 21}, stamp);
        if (kind.type == '2') put(expected, {148, 10}, actual.substr(12 + 148, 10));
        put(expected, kHead[kGidArg], kind.gid_if_null);
        put(expected, kHead[kSvcIdArg], kind.svc_id_if_null);
      }
      if (kind.is_the_levels) {
        put(expected, kHead[kGidArg], kLevelGid);
        put(expected, kHead[kSvcIdArg], kLevelSvcId);
      }
      EXPECT_EQ(actual, expected);
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

TEST_F(Golden, TheSharedEntryShowsTheRunningServiceAtItsPlaces) {
  trace([] {
    EXPECT_EQ(start({.gid = "GID-1", .svc_id = "SVC-1", .recv_svc_cd = "RECV-CODE-12345"}), 0);
    EXPECT_EQ(start({.gid = "GID-2", .svc_id = "SVC-2", .chnl_typ_cd = "ICT"}), 0);
  });
  const std::string first = padded("GID-1", 32) + '\0' + padded("SVC-1", 16) + '\0';
  const std::string second = padded("GID-2", 32) + '\0' + padded("SVC-2", 16);
  const std::string owner = digits(pid(), 8) + '\0' + "000000000004660" + '\0' + "00052";
  const auto* const raw = reinterpret_cast<const char*>(&entry());
  for (const auto& [at, text] : std::map<int, std::string>{{16, first + "RECV-CODE-12"},
                                                           {79, first},
                                                           {142, second},
                                                           {709, "\2O"},
                                                           {780, owner},
                                                           {896, "f\1"},
                                                           {900, "\12"}})
    EXPECT_EQ(std::string(raw + at, text.size()), text) << at;
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
