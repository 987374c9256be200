// The bytes of every record kind as a collector receives them: each argument has a value of its
// own, and every place and width is written here by hand.
#include <sys/prctl.h>

#include <ctime>

#include "records/traced.h"

extern "C" const char* trace_from_c(void);

namespace varn::test {
namespace {

struct Place {
  int at, width;  // from the record-type byte on
};

// In the order of the arguments; a place without a width is of one that the kind does not take.
constexpr Place kHead[] = {{2, 2}, {5, 1}, {7, 32}, {56, 16}, {89, 8}, {126, 8}, {135, 12}};
const std::vector<Place> kServiceArgs = {
    {173, 1}, {175, 6},  {182, 3}, {186, 12}, {199, 9}, {209, 7}, {217, 1},  {219, 9},
    {229, 8}, {238, 39}, {278, 3}, {282, 3},  {286, 1}, {288, 1}, {290, 12}, {303, 16},
    {320, 3}, {324, 4},  {329, 3}, {333, 39}, {373, 1}, {375, 1}};
const std::vector<Place> kPartialArgs = {{173, 1},  {175, 6},  {182, 3}, {186, 12}, {199, 9},
                                         {209, 7},  {217, 1},  {219, 9}, {229, 30}, {260, 20},
                                         {281, 20}, {302, 30}, {333, 3}};

using Args = std::array<Arg, 29>;

template <typename Named>
auto sender(int (*send)(const Named&, int)) {
  return [send](const Args& args) {
    Named named;
    static_assert(sizeof named <= sizeof args);
    std::memcpy(static_cast<void*>(&named), args.data(), sizeof named);
    return send(named, kThread);
  };
}

constexpr char kTopGid[] = "GID-OF-THE-SERVICE", kTopSvcId[] = "SVC-OF-LEVEL";

struct Kind {
  char type;
  std::uint32_t length;
  const char *gid_if_null, *svc_id_if_null;
  std::vector<Place> body;
  std::function<int(const Args&)> send;
};
const Kind kKinds[] = {
    {'1', 377, "", "", kServiceArgs, sender(start)},
    {'2', 377, kTopGid, kTopSvcId, kServiceArgs, sender(end)},
    {'9', 377, kTopGid, kTopSvcId, kServiceArgs, sender(error)},
    {'1', 337, "", "", kPartialArgs, sender(pt_start)},
    {'2', 337, kTopGid, kTopSvcId, kPartialArgs, sender(pt_end)},
    {'1', 377, "", "", kServiceArgs, sender(clh_start)},
    {'2', 377, "", "", kServiceArgs, sender(clh_end)},
    {'9', 377, "", "", kServiceArgs, sender(clh_error)},
    {'1', 337, "", "", kPartialArgs, sender(web_start)},
    {'2', 337, "", "", kPartialArgs, sender(web_end)},
    {'I', 499, kTopGid, kTopSvcId, {{}, {}, {}, {148, 350}}, sender(info)},
    {'X', 504, kTopGid, "", {{148, 4}, {}, {}, {153, 350}}, sender(info_ex)},
    {'V', 684, "", "", {{148, 4}, {153, 12}, {166, 4}, {171, 512}}, sender(event)},
    {'E', 522, kTopGid, kTopSvcId, {{148, 4}, {153, 12}, {166, 4}, {171, 350}}, sender(errinfo)},
};

// How each argument is given: characters of its field, and what stands behind them in the text,
// which ends where its memory ends.
constexpr int kWhole = INT32_MAX, kNull = -1;
struct Form {
  const char* name;
  int chars;  // no more than the field has, or kNull
  std::string behind;
  int len;  // as given; 0: the number of the characters
};
const Form kForms[] = {
    {"texts as long as their fields", kWhole, "~", 0},
    {"longer texts, zero-ended", kWhole, std::string("~~~~~\0", 6), -1},
    {"texts of one character, zero-ended", 1, std::string("\0", 1), -1},
    {"texts of no character", 0, "~", 0},
    {"null texts", kNull, "", INT32_MAX},
    {"texts of the largest length", kWhole, "", INT32_MAX},
    {"texts of the smallest length", kWhole, "", INT32_MIN},
};

std::string bytes_of(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

void put(std::string& bytes, Place place, const std::string& text) {
  bytes.replace(static_cast<std::size_t>(12 + place.at), static_cast<std::size_t>(place.width),
                padded(text, static_cast<std::size_t>(place.width)));
}

std::string digits(std::int64_t number, int width) {
  std::string text = std::to_string(number);
  return std::string(static_cast<std::size_t>(width) - text.size(), '0') + text;
}

// The current date and time in Korea, as records have them.
std::string stamp() {
  const std::int64_t us = clock_us();
  const std::time_t second = us / 1'000'000 + 9 * 3600;
  char text[16];
  std::strftime(text, sizeof text, "%Y%m%d %H%M%S", std::gmtime(&second));
  return text + digits(us % 1'000'000, 6);
}

using Golden = RecordTest;

TEST_F(Golden, EveryKindHasEachArgumentAtItsPlaceHoweverItIsGiven) {
  collector.environment["TZ"] = "KST-9";
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  for (const Kind& kind : kKinds) {
    std::vector<Place> places(std::begin(kHead), std::end(kHead));
    places.insert(places.end(), kind.body.begin(), kind.body.end());
    for (const Form& form : kForms) {
      SCOPED_TRACE(std::string(1, kind.type) + ": " + form.name);
      const auto field = [&](std::size_t i) {
        const auto chars = static_cast<std::size_t>(std::min(form.chars, places[i].width));
        return std::string(chars, "ABCDEFGHIJKLMNOPQRSTUVWXYZabc"[i]);
      };
      const std::string before = stamp();
      const std::vector<Record> records = trace([&] {
        prctl(PR_SET_NAME, "golden-process");
        ASSERT_EQ(TRAN_DONE(), 0);
        ASSERT_EQ(TRAN_INIT(), 0);
        ASSERT_EQ(kind.type == '1' ? 0 : start({.gid = kTopGid, .svc_id = kTopSvcId}), 0);
        Args args;
        args.fill({nullptr, form.len});
        for (std::size_t i = 0; i < places.size() && form.chars != kNull; ++i) {
          const int len = form.len == 0 ? static_cast<int>(field(i).size()) : form.len;
          args[i] = {guarded(field(i) + form.behind), len};
        }
        ASSERT_EQ(kind.send(args), 0);
      });
      ASSERT_FALSE(records.empty());
      // Some kinds are always of the running service.
      const bool of_level = std::strchr("29E", kind.type) != nullptr && *kind.gid_if_null != '\0';
      const std::string actual = bytes_of(records.back());
      std::string expected(8 + 784, ' ');
      std::memcpy(expected.data() + 8, &kind.length, sizeof kind.length);
      expected[12] = kind.type;
      put(expected, {40, 15}, "golden-process");
      put(expected, {73, 15}, std::string(host).substr(0, 15));
      put(expected, {89, 8}, digits(pid(), 8));
      put(expected, {98, 21}, "000000000004660 00052");
      put(expected, {120, 5}, digits(entry().pidx, 5));
      if (kind.length == 377 || kind.length == 337)
        put(expected, {148, 24}, "0000000000 0000000000 01");
      if (form.chars != kNull) {
        for (std::size_t i = 0; i < places.size(); ++i) put(expected, places[i], field(i));
      } else {
        // No time given: the current one, and for an end a response time.
        const std::string shown = actual.substr(12 + 126, 21);
        EXPECT_TRUE(before <= shown && shown <= stamp()) << shown;
        put(expected, {126, 21}, shown);
        if (kind.type == '2' && of_level) put(expected, {148, 10}, actual.substr(12 + 148, 10));
      }
      if (of_level || form.chars == kNull) {
        put(expected, {7, 32}, kind.gid_if_null);
        put(expected, {56, 16}, kind.svc_id_if_null);
      }
      EXPECT_EQ(actual, expected);
    }
  }
}

TEST_F(Golden, WhatALongerRecordOrAGivenProcessIdLeftBehindIsGoneFromTheNext) {
  const auto records = trace([] {
    const std::string text(512, '#');
    EXPECT_EQ(event({.gid = "G", .pid_str = "87654321", .message = text.c_str()}), 0);
    EXPECT_EQ(start({.gid = "G", .svc_id = "S"}), 0);
  });
  ASSERT_EQ(types_of(records), "V1");
  EXPECT_EQ(text_of(records[1], kPid), digits(pid(), 8));
  EXPECT_EQ(bytes_of(records[1]).substr(12 + 377), std::string(780 - 377, ' '));
}

TEST_F(Golden, TheSharedEntryShowsTheRunningServiceAtItsPlaces) {
  trace([] {
    EXPECT_EQ(start({.gid = "GID-1", .svc_id = "SVC-1", .recv_svc_cd = "RECV-CODE-12345"}), 0);
    EXPECT_EQ(start({.gid = "GID-2", .svc_id = "SVC-2", .chnl_typ_cd = "ICT"}), 0);
  });
  const std::string first = padded("GID-1", 32) + '\0' + padded("SVC-1", 16) + '\0';
  const std::string owner = digits(pid(), 8) + '\0' + "000000000004660" + '\0' + "00052";
  const auto* const raw = reinterpret_cast<const char*>(&entry());
  for (const auto& [at, text] :
       std::map<int, std::string>{{16, first + "RECV-CODE-12"},
                                  {79, first},
                                  {142, padded("GID-2", 32) + '\0' + padded("SVC-2", 16)},
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
