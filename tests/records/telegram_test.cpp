// TRAN_STARTX and TRAN_ENDX: what they cut out of a telegram, which calls they make of it, and how
// they fare with telegrams that are shorter than they say.
#include "records/traced.h"
#include "varn/sttl.h"

namespace varn::test {
namespace {

constexpr bool kStandard = true, kFixed = false;

struct TelegramArgs {
  Arg hdr_cd = {}, hdr_flag = {}, gid = {}, svc_id = "SVC00001";
  Arg sttl = {};
  bool standard = kStandard;
  int ext_on = 0;
};

#define VARN_TEST_TELEGRAM                                                                         \
  thread, args.hdr_cd.text, args.hdr_cd.len, args.hdr_flag.text, args.hdr_flag.len, args.gid.text, \
      args.gid.len, args.svc_id.text, args.svc_id.len, args.sttl.text, args.sttl.len,              \
      args.standard ? 7 : 0, args.ext_on
int startx(const TelegramArgs& args, int thread = kThread) {
  return TRAN_STARTX(VARN_TEST_TELEGRAM);
}
int endx(const TelegramArgs& args, int thread = kThread) { return TRAN_ENDX(VARN_TEST_TELEGRAM); }

Arg whole(const std::string& telegram) {
  return {telegram.data(), static_cast<int>(telegram.size())};
}

// The fields of a service record, and where a telegram of either layout has them.
struct Source {
  const char* field;
  std::size_t standard, fixed;
};
constexpr Source kSources[] = {
    {"chnl_typ_cd", 209, 253},     {"recv_svc_cd", 132, 160},       {"scrn_id", 366, 467},
    {"emp_no", 302, 386},          {"proc_rslt_dv_cd", 188, 220},   {"std_tmsg_err_cd", 195, 236},
    {"ipv6_adr", 41, 43},          {"fst_trms_sys_cd", 93, 98},     {"trms_sys_cd", 96, 102},
    {"rqst_rsps_dv_cd", 104, 122}, {"trsc_sync_dv_cd", 105, 124},   {"rslt_recv_svc_cd", 144, 173},
    {"eai_intf_id", 156, 186},     {"dsbl_sys_cd", 192, 232},       {"otsd_inst_cd", 401, 514},
    {"otsd_biz_cd", 405, 519},     {"fst_trms_mdcl_ctt", 435, 560}, {"std_tmsg_len", 0, 0},
    {"trsc_grco_br", 315, 402},
};

// Each byte tells its place.
std::string patterned(std::size_t size) {
  std::string telegram;
  for (std::size_t i = 0; i < size; ++i) telegram += static_cast<char>('A' + i * 7 % 53);
  return telegram;
}

void put(std::string& telegram, std::size_t at, const std::string& text) {
  telegram.replace(at, text.size(), text);
}

const std::string kHostGid = "HOST-GID-HOST-GID-HOST-GID-HOSTXY";
const std::string kTelegramGid = "TELEGRAM-GID-TELEGRAM-GID-TELEGR";

// A telegram with what decides over the calls made.
std::string telegram_of(bool standard, const std::string& channel, char result = '0',
                        const std::string& gid = kTelegramGid, std::size_t size = 700) {
  std::string telegram(size, ' ');
  put(telegram, standard ? 9 : 10, gid);
  put(telegram, standard ? 209 : 253, channel);
  put(telegram, standard ? 188 : 220, std::string(1, result));
  return telegram;
}

using Telegram = RecordTest;

TEST_F(Telegram, EveryFieldStandsAtItsPlaceInTheRecordsOfBothCallsAndLayouts) {
  for (const bool standard : {kStandard, kFixed}) {
    SCOPED_TRACE(standard ? "standard" : "fixed");
    std::string telegram = patterned(620);
    const int length = 87654321;
    if (!standard) std::memcpy(telegram.data(), &length, sizeof length);
    const auto records = trace([&] {
      TelegramArgs args = {.hdr_cd = "HH", .hdr_flag = "F", .gid = kHostGid.c_str()};
      args.sttl = whole(telegram);
      args.standard = standard;
      args.ext_on = 5;
      ASSERT_EQ(startx(args), 0);
      args.ext_on = 0;
      ASSERT_EQ(endx(args), 0);
    });
    ASSERT_EQ(types_of(records), "II192");
    EXPECT_EQ(body_field(records[2], "ext_flag"), "1");
    EXPECT_EQ(body_field(records[4], "ext_flag"), "0");
    for (std::size_t i = 2; i < 5; ++i) {
      EXPECT_EQ(text_of(records[i], kHdrCd) + text_of(records[i], kHdrFlag), "HHF");
      for (const Source& source : kSources) {
        std::string expected;
        for (const Field& field : kServiceBody)
          if (field.name == source.field)
            expected = telegram.substr(standard ? source.standard : source.fixed, field.width);
        if (!standard && source.fixed == 402)
          expected = telegram.substr(402, 2) + telegram.substr(405, 4);
        if (!standard && source.fixed == 0) expected = "87654321";
        EXPECT_EQ(body_field(records[i], source.field), expected) << source.field;
      }
      EXPECT_EQ(body_field(records[i], "spare1") + body_field(records[i], "spare2"), "");
    }
  }
}

TEST_F(Telegram, TheLengthOfAFixedTelegramIsANumberCutToItsField) {
  for (const auto& [number, shown] : {std::pair{600, "00000600"},
                                      {-1, "-0000001"},
                                      {INT32_MAX, "99999999"},
                                      {INT32_MIN, "-9999999"}}) {
    std::string telegram = telegram_of(kFixed, "WEB");
    std::memcpy(telegram.data(), &number, sizeof number);
    const auto records =
        trace([&] { EXPECT_EQ(startx({.sttl = whole(telegram), .standard = kFixed}), 0); });
    ASSERT_EQ(types_of(records), "1");
    EXPECT_EQ(body_field(records[0], "std_tmsg_len"), shown);
    EXPECT_EQ(text_of(records[0], kGid), "") << "of the host, which gave none";
  }
}

TEST_F(Telegram, OfAServiceIdOfTwelveCharactersNineCount) {
  const std::string telegram = telegram_of(kStandard, "WEB");
  const std::pair<Arg, const char*> cases[] = {
      {"ABCDEFGHIJKL", "ABCDEFGHI"},
      {"ABCDEFGHIJK", "ABCDEFGHIJK"},
      {"ABCDEFGHIJKLM", "ABCDEFGHIJKLM"},
      {{"ABCDEFGHIJKLMNO", 12}, "ABCDEFGHI"},
      {{"ABCDEFGHIJKL\0...", 16}, "ABCDEFGHI"},
      {"ABCDEFGHIJKLMNOPQ", "ABCDEFGHIJKLMNOP"},
      {{"ABC", 0}, ""},
  };
  for (const auto& [svc_id, sent] : cases) {
    const auto records = trace([&, svc_id = svc_id] {
      EXPECT_EQ(startx({.svc_id = svc_id, .sttl = whole(telegram)}), 0);
    });
    ASSERT_EQ(types_of(records), "1");
    EXPECT_EQ(text_of(records[0], kSvcId), sent);
  }
  // The client handler's goes as it is, and so does one that comes without a telegram.
  const auto records = trace([&] {
    EXPECT_EQ(startx({.svc_id = "CLHDEFGHIJKL", .sttl = whole(telegram)}), 0);
    EXPECT_EQ(startx({.svc_id = "ABCDEFGHIJKL"}), 0);
  });
  ASSERT_EQ(types_of(records), "11");
  EXPECT_EQ(text_of(records[0], kSvcId), "CLHDEFGHIJKL");
  EXPECT_EQ(text_of(records[1], kSvcId), "ABCDEFGHIJKL");
}

TEST_F(Telegram, TheChannelChoosesTheGidAndAChangeIsAnnouncedToBoth) {
  const std::string host30 = kHostGid.substr(0, 30), telegram30 = kTelegramGid.substr(0, 30);
  constexpr char kNoGid[32] = {};
  struct {
    Arg gid;
    const char* channel;
    const char* announced;  // how; null: not
    std::string sent;       // GID of the start
    bool only_standard;
  } const cases[] = {
      {kHostGid.c_str(), "WEB", "", kHostGid.substr(0, 32), false},
      {kHostGid.c_str(), "ICT", "C/C ", kTelegramGid, false},
      {{kHostGid.data(), 32}, "ICC", "C/C ", kTelegramGid, false},
      {{kHostGid.data(), 20}, "WEB", "", kHostGid.substr(0, 20), false},
      {(telegram30 + "ZZ").c_str(), "WEB", nullptr, "", false},
      {nullptr, "WEB", nullptr, "", false},
      {nullptr, "ICT", nullptr, kTelegramGid, false},
      {{"", 0}, "WEB", "", "", true},
      {{kNoGid, sizeof kNoGid}, "WEB", "", "", true},
  };
  const std::string like = telegram30 + "ZZ";
  for (const bool standard : {kStandard, kFixed}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(standard ? "standard " : "fixed ") + std::to_string(&c - cases));
      const bool is_like = &c - cases == 4;
      const std::string telegram = telegram_of(standard, c.channel);
      const auto records = trace([&] {
        EXPECT_EQ(startx({.gid = is_like ? Arg(like.c_str()) : c.gid,
                          .svc_id = "ABCDEFGHIJKL",
                          .sttl = whole(telegram),
                          .standard = standard}),
                  0);
      });
      const bool announced = c.announced != nullptr && (standard || !c.only_standard);
      ASSERT_EQ(types_of(records), announced ? "II1" : "1");
      EXPECT_EQ(text_of(records.back(), kGid), is_like ? like : c.sent);
      if (!announced) continue;
      const std::string kind = c.announced;
      const std::string host =
          std::string(c.gid.text, strnlen(c.gid.text, c.gid.len < 0 ? 32 : c.gid.len))
              .substr(0, 32);
      EXPECT_EQ(text_of(records[0], kGid), host);
      EXPECT_EQ(text_of(records[1], kGid), kTelegramGid);
      EXPECT_EQ(text_of(records[0], kSvcId) + text_of(records[1], kSvcId), "ABCDEFGHIABCDEFGHI");
      EXPECT_EQ(body_field(records[0], "message"),
                (kind.empty() ? "New" : "C/C") + (" Transaction Created [ GID '" + telegram30) +
                    "', Service ABCDEFGHI ]");
      EXPECT_EQ(
          body_field(records[1], "message"),
          "Linked " + kind + "Main Service Transaction Exist [ GID '" + host.substr(0, 30) + "' ]");
    }
  }
}

TEST_F(Telegram, ServiceIdAndTelegramChooseTheCalls) {
  struct {
    const char* svc_id;
    int telegram;  // 2: none, else the layout
    bool flat_start, flat_end;
  } const cases[] = {
      {"CLH0001", kStandard, true, true}, {"CLH0001", kFixed, true, true},
      {"CLH0001", 2, false, true},        {"GW01", kStandard, false, false},
      {"GW01", kFixed, false, true},      {"GW01", 2, false, true},
      {"CL", kStandard, false, false},    {"SVC", 2, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.svc_id) + " " + std::to_string(c.telegram));
    const std::string telegram = telegram_of(c.telegram != kFixed, "WEB", '9', kTelegramGid, 1400);
    TelegramArgs args = {.svc_id = c.svc_id, .standard = c.telegram != kFixed};
    if (c.telegram != 2) args.sttl = whole(telegram);
    const auto records = trace([&] {
      // A flat call leaves the depth at one; a flat end wants no service.
      EXPECT_EQ(endx(args), c.flat_end ? 0 : TRAN_RC_DEPTH);
      EXPECT_EQ(entry().entry_depth, c.flat_end ? 1 : 0);
      EXPECT_EQ(startx(args, kThread + 1), 0);
      EXPECT_EQ(startx(args, kThread + 1), 0);
      EXPECT_EQ(entry(kThread + 1).entry_depth, c.flat_start ? 1 : 2);
      EXPECT_EQ(endx(args, kThread + 1), 0);
    });
    const std::string end = c.flat_end || c.telegram == 2 ? "2" : "92";
    EXPECT_EQ(types_of(records), (c.flat_end ? "2" : "") + ("11" + end));
    const bool has_gid = c.telegram != 2 && c.flat_end;
    EXPECT_EQ(text_of(records.back(), kGid), has_gid ? kTelegramGid : "");
  }
}

TEST_F(Telegram, AnAgentThatWasNeverStartedIsStartedByTheFirstTelegramAlone) {
  const std::string telegram = telegram_of(kStandard, "WEB");
  EXPECT_TRUE(collector.run([&] {
    EXPECT_EQ(endx({.sttl = whole(telegram)}), TRAN_RC_NOT_STARTED);
    EXPECT_EQ(startx({.sttl = whole(telegram)}), 0);
    EXPECT_EQ(collector.count_logged("<!> forced TRAN_INIT...API called, ret : 0"), 1);
    EXPECT_EQ(endx({.sttl = whole(telegram)}), 0);
    ASSERT_EQ(TRAN_DONE(), 0);
    EXPECT_EQ(startx({}), 0) << "as before the first start";
    EXPECT_EQ(collector.count_logged("forced TRAN_INIT"), 2);
    ASSERT_EQ(TRAN_DONE(), 0);
    unsetenv("TRAN_HOME");
    EXPECT_EQ(startx({}), TRAN_RC_NOT_STARTED);
    setenv("TRAN_HOME", "/", 1);
    EXPECT_EQ(startx({}), TRAN_RC_NOT_STARTED) << "a start that failed is not tried again";
  }));
}

TEST_F(Telegram, NothingIsReadBeyondATelegramOfAnyLength) {
  for (const bool standard : {kStandard, kFixed}) {
    trace([&] {
      const std::string telegram = patterned(600);
      for (std::size_t n = 0; n <= 600; ++n) {
        TelegramArgs args = {.gid = kHostGid.c_str(), .standard = standard};
        args.sttl = {guarded(telegram.substr(0, n)), static_cast<int>(n)};
        ASSERT_EQ(startx(args), 0);
        ASSERT_EQ(endx(args), 0);
        const auto records = collector.read_all();
        const Record& end = records.back();
        ASSERT_EQ(type_of(end), '2');
        for (const Source& source : kSources) {
          const std::size_t at = standard ? source.standard : source.fixed;
          const std::string field = body_field(end, source.field);
          if (at >= n && at != 402) {
            ASSERT_EQ(field, "") << source.field << " of " << n;
          } else if (at > 0 && at != 402 && at < n) {
            ASSERT_EQ(field, telegram.substr(at, field.size())) << source.field << " of " << n;
            ASSERT_GE(at + field.size(), std::min(n, at + 1)) << source.field << " of " << n;
          }
        }
      }
    });
  }
}

TEST_F(Telegram, AZeroByteEndsFixedFieldsAndTelegramsWithoutALength) {
  std::string telegram = patterned(620);
  telegram[163] = '\0';
  const auto records = trace([&] {
    for (const bool standard : {kStandard, kFixed}) {
      EXPECT_EQ(startx({.sttl = whole(telegram), .standard = standard}), 0);
      EXPECT_EQ(startx({.sttl = {guarded(telegram.substr(0, 164)), -1}, .standard = standard}), 0);
    }
  });
  ASSERT_EQ(types_of(records), "1111");
  EXPECT_EQ(body_field(records[0], "eai_intf_id"), telegram.substr(156, 16)) << "bytes as they are";
  EXPECT_EQ(body_field(records[1], "eai_intf_id"), telegram.substr(156, 7));
  EXPECT_EQ(body_field(records[2], "recv_svc_cd"), telegram.substr(160, 3));
  EXPECT_EQ(body_field(records[2], "rslt_recv_svc_cd"), telegram.substr(173, 12));
  EXPECT_EQ(body_field(records[3], "recv_svc_cd"), telegram.substr(160, 3));
  EXPECT_EQ(body_field(records[3], "rslt_recv_svc_cd"), "");
}

// ---- The error part ----

struct Counts {
  std::string items, messages, additional;
};

std::string response(char result, const Counts& counts, int items, int messages, int additional) {
  std::string telegram = telegram_of(kStandard, "ICC", result, kTelegramGid, 561);
  put(telegram, 132, "RECV00000001");
  put(telegram, 512, "EM");
  const auto entry = [](const char* code, int i, const char* text, std::size_t width) {
    return padded(code + std::to_string(i), 9) + padded(text + std::to_string(i), width);
  };
  telegram += counts.items;
  for (int i = 0; i < items; ++i) telegram += padded("item" + std::to_string(i), 20);
  telegram += counts.messages;
  for (int i = 0; i < messages; ++i) telegram += entry("MSG", i, "message ", 300);
  telegram += counts.additional;
  for (int i = 0; i < additional; ++i) telegram += entry("ADD", i, "additional ", 200);
  return telegram;
}

TEST_F(Telegram, TheErrorPartIsReportedByItsCountsAndTheResult) {
  struct {
    std::string telegram;
    const char* types;
    const char* code;
  } cases[] = {
      {response('9', {"01", "01", "02"}, 1, 1, 2), "9EII2", "1107"},
      {response('8', {"00", "03", "01"}, 0, 3, 1), "9EI2", "1106"},
      {response('1', {"02", "01", "00"}, 2, 1, 0), "9E2", "1105"},
      {response('7', {"00", "00", "03"}, 0, 0, 3), "9III2", nullptr},
      {response('A', {"  ", " 1", "1 "}, 0, 1, 1), "9EI2", "9999"},
      {response('A', {"-1", "x1", "-9"}, 0, 0, 0), "92", nullptr},
      {response('0', {"01", "01", "02"}, 1, 1, 2), "2", nullptr},
      {response(' ', {"01", "01", "02"}, 1, 1, 2), "2", nullptr},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    c.telegram.resize(std::max<std::size_t>(c.telegram.size(), 1400), ' ');
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = kTelegramGid.c_str(), .svc_id = "SVC"}), 0);
      EXPECT_EQ(endx({.sttl = whole(c.telegram)}), 0);
    });
    ASSERT_EQ(types_of(records), std::string("1") + c.types);
    if (c.code == nullptr) continue;
    EXPECT_EQ(body_field(records[2], "code"), c.code);
    EXPECT_EQ(body_field(records[2], "recv_svc_cd"), "RECV00000001");
    EXPECT_EQ(body_field(records[2], "chnl_class"), "C");
    EXPECT_EQ(body_field(records[2], "message"), "[MSG0     ] message 0");
    for (std::size_t i = 3; i + 1 < records.size(); ++i)
      EXPECT_EQ(body_field(records[i], "message"),
                "[ADD" + std::to_string(i - 3) + "     ] additional " + std::to_string(i - 3));
  }
  // At 1,084 bytes, of another kind, or in the fixed layout there is no error part.
  for (const int way : {0, 1, 2}) {
    std::string telegram = cases[0].telegram;
    if (way == 0) telegram.resize(1084);
    if (way == 1) put(telegram, 512, "ER");
    if (way == 2) put(telegram, 220, "9");
    const auto records = trace([&] {
      ASSERT_EQ(start({.gid = kTelegramGid.c_str(), .svc_id = "SVC"}), 0);
      EXPECT_EQ(endx({.sttl = whole(telegram), .standard = way != 2}), 0);
    });
    EXPECT_EQ(types_of(records), "192") << way;
  }
}

TEST_F(Telegram, AnErrorPartThatRunsPastTheEndIsReportedAsFarAsItIsThere) {
  // Items 561, messages 603 and 605 to 1532, additional ones 1532 and 1534 to 2161.
  const std::string telegram = response('9', {"02", "03", "03"}, 2, 3, 3);
  ASSERT_EQ(telegram.size(), 2161u);
  trace([&] {
    for (std::size_t n = 1085; n <= telegram.size(); ++n) {
      ASSERT_EQ(start({.gid = kTelegramGid.c_str(), .svc_id = "SVC"}), 0);
      ASSERT_EQ(endx({.sttl = {guarded(telegram.substr(0, n)), static_cast<int>(n)}}), 0);
      const std::size_t additional = n < 1534 ? 0 : (n - 1534) / 209;
      ASSERT_EQ(types_of(collector.read_all()), "19E" + std::string(additional, 'I') + "2") << n;
    }
  });
  EXPECT_GE(collector.count_logged("<!> TRAN_ENDX error part runs past the end"), 10);
  EXPECT_FALSE(collector.logged("(2161 byte)"));

  // Counts that lie: from eleven items on, no message is left whole.
  trace([&] {
    for (int items = 11; items <= 99; ++items) {
      std::string lying = response('1', {std::to_string(items), "", ""}, 0, 0, 0);
      lying.resize(1085, '9');
      ASSERT_EQ(start({.gid = kTelegramGid.c_str(), .svc_id = "SVC"}), 0);
      ASSERT_EQ(endx({.sttl = {guarded(lying), 1085}}), 0);
      ASSERT_EQ(types_of(collector.read_all()), "192") << items;
    }
  });
}

TEST_F(Telegram, AnnouncementsAreMadeWhereTheirKindIsOnWhateverBecomesOfTheStart) {
  const std::string telegram = telegram_of(kStandard, "WEB");
  const auto records = trace([&] {
    collector.que_info().log_flag_set = 0xFE;
    EXPECT_EQ(startx({.gid = "OTHER", .sttl = whole(telegram)}), TRAN_RC_SWITCHED_OFF);
    collector.que_info().log_flag_set = 0x01;
    EXPECT_EQ(startx({.gid = "OTHER", .sttl = whole(telegram)}), 0);
  });
  EXPECT_EQ(types_of(records), "II1");
}

TEST_F(Telegram, TheExportedTableSaysWhereTheFieldsAre) {
  EXPECT_EQ(_GLBL_ID.offset * 100 + _GLBL_ID.length, 932);
  EXPECT_EQ(_STD_TMSG_DAT_KIND_CD.offset, 512);
  EXPECT_EQ(_ADTN_MSG.offset, -1);
  EXPECT_EQ(_ADTN_MSG.length, 200);
}

}  // namespace
}  // namespace varn::test
