// Messages as named fields, texts as UTF-8, and what a collection of them adds up to. The bytes are
// laid out by hand from the table of formats.
#include "collector/decode.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "collector/stats.h"
#include "support/support.h"

namespace varn {
namespace {

using namespace std::string_literals;
using test::euc_kr;

// What stands in a record behind its type, and the names of it all.
constexpr std::string_view kHead =
    " AB 7 20260801093000000HQ0001A0000001X bank-0123456789 TRANSFER00000001 host-0123456789"
    " 00004711 000000000004712 00052 00042 20260801 093000123456 ";
constexpr std::string_view kHeadNames =
    "rec_type hdr_cd hdr_flag gid proc_nm svc_id host_name pid tid mtr_tid_idx pidx date time";
constexpr std::string_view kService =
    "0000001234 0000000567 01 E 110001 WEB RECEIVER0001 SCREEN001 EMP0001 1 TGERR0001 00000400 "
    "2001:0db8:0000:0000:0000:0000:0000:0001 FST TRS R S RSLTRECV0001 EAI-INTERFACE-01 DSB INST "
    "BIZ MEDIUM-0123456789-0123456789-0123456789 X Y ";
constexpr std::string_view kServiceNames =
    "elapsed_us dbio_elapsed_us depth ext_flag trsc_grco_br chnl_typ_cd recv_svc_cd scrn_id emp_no "
    "proc_rslt_dv_cd std_tmsg_err_cd std_tmsg_len ipv6_adr fst_trms_sys_cd trms_sys_cd "
    "rqst_rsps_dv_cd trsc_sync_dv_cd rslt_recv_svc_cd eai_intf_id dsbl_sys_cd otsd_inst_cd "
    "otsd_biz_cd fst_trms_mdcl_ctt spare1 spare2";

TRAN_LOGF_QUE_DATA message(char rec_type, std::string_view body, std::uint32_t length) {
  TRAN_LOGF_QUE_DATA data;
  std::memset(&data, ' ', sizeof data);
  data.length = length;
  data.view[0] = rec_type;
  std::memcpy(data.view + 1, kHead.data(), kHead.size());
  std::memcpy(data.view + 1 + kHead.size(), body.data(), body.size());
  return data;
}

using Fields = std::vector<std::pair<std::string, std::string>>;

Fields fields_of(const DecodedRecord& record) {
  Fields fields;
  for (const FieldText& field : record.fields)
    fields.emplace_back(field.name, utf8_from_uhc(field.bytes));
  return fields;
}

// Names and values that hold no blank, one by one, then others.
Fields paired(std::string_view names, const std::string& values, const Fields& others = {}) {
  Fields fields;
  std::istringstream name_words{std::string(names)};
  std::istringstream value_words(values);
  for (std::string name, value; name_words >> name && value_words >> value;)
    fields.emplace_back(name, value);
  fields.insert(fields.end(), others.begin(), others.end());
  return fields;
}
Fields with_header(char rec_type, const Fields& body) {
  return paired(kHeadNames, rec_type + std::string(kHead), body);
}

TEST(Decoding, NamesEveryFieldOfEveryKind) {
  const std::string korean = "이체 완료: 김민준";
  // As wide as the field: its last byte ends a character.
  std::string wide;
  for (int i = 0; i < 256; ++i) wide += "가";
  const std::string notice = "C001 RECV00000001 CHNL ";
  const auto with_message = [&](const std::string& text) {
    return paired("code recv_svc_cd chnl_class", notice, {{"message", text}});
  };
  const Fields service_fields = paired(kServiceNames, std::string(kService));
  const struct {
    char rec_type;
    std::string_view name;
    std::uint32_t length;
    std::string body;
    Fields fields;
  } cases[] = {
      {'1', "start", 377, std::string(kService), service_fields},
      {'2', "end", 377, std::string(kService), service_fields},
      {'9', "error", 377, std::string(kService), service_fields},
      {'B', "dbio", 499, euc_kr(korean), {{"text", korean}}},
      {'C', "call", 499, "  leading blanks stay", {{"text", "  leading blanks stay"}}},
      {'E', "errinfo", 522, notice + euc_kr(korean), with_message(korean)},
      {'I', "info", 499, euc_kr(korean), {{"message", korean}}},
      {'Q', "sql", 499, "select '\x8C\x63\x94\xEE'", {{"text", "select '똠뷁'"}}},
      {'V', "event", 684, notice + euc_kr(wide), with_message(wide)},
      {'X', "info_ex", 504, "C001 " + euc_kr(korean), {{"code", "C001"}, {"message", korean}}},
  };
  static_assert(std::size(cases) == kRecordKinds.size());
  DecodedRecord record;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const TRAN_LOGF_QUE_DATA data = message(c.rec_type, c.body, c.length);
    decode(data, kRecordTextSize, record);
    ASSERT_NE(record.kind, nullptr);
    EXPECT_EQ(record.kind->name, c.name);
    EXPECT_EQ(record.length, c.length);
    EXPECT_FALSE(record.malformed);
    EXPECT_EQ(fields_of(record), with_header(c.rec_type, c.fields));
  }
}

TEST(Decoding, ShowsWhatNoTableCovers) {
  DecodedRecord record;
  const TRAN_LOGF_QUE_DATA unknown = message('?', "whatever it is", 0xFFFF'FFFF);
  decode(unknown, kRecordTextSize, record);
  EXPECT_EQ(record.kind, nullptr);
  EXPECT_EQ(record.length, 0xFFFF'FFFF);
  EXPECT_EQ(fields_of(record), with_header('?', {{"text", "whatever it is"}}));

  const std::size_t tail_at = kService.find("00000400");
  const std::string tail(kService.substr(tail_at, kService.size() - 1 - tail_at));
  const Fields common =
      paired(kServiceNames, std::string(kService.substr(0, tail_at)), {{"tail", tail}});
  for (const std::uint32_t length : {0u, 376u, 0xFFFF'FFFFu}) {
    const TRAN_LOGF_QUE_DATA other = message('2', kService, length);
    decode(other, kRecordTextSize, record);
    EXPECT_EQ(fields_of(record), with_header('2', common)) << length;
    EXPECT_EQ(record.length, length);
  }

  const TRAN_LOGF_QUE_DATA short_one = message('1', kService, 377);
  const std::string all(short_one.view, sizeof short_one.view);
  for (const std::size_t size : {0u, 3u, 4u, 5u, 20u, 783u, 785u, 100'000u}) {
    decode(short_one, size, record);
    EXPECT_TRUE(record.malformed);
    std::string text = all.substr(0, size < 4 ? 0 : size - 4);
    text.erase(text.find_last_not_of(' ') + 1);
    EXPECT_EQ(fields_of(record), (Fields{{"text", text}})) << size;
  }
}

TEST(Decoding, LosesNoByteOfAText) {
  const struct {
    std::string bytes;
    std::string_view shown;
  } cases[] = {
      {"", ""},
      {"plain ~", "plain ~"},
      {euc_kr("가힝 漢字 ※"), "가힝 漢字 ※"},
      {"\x8C\x63\x94\xEE\xC6\x52", "똠뷁힣"},  // not in EUC-KR
      {"a\xFFz", "a\uFFFDz"},
      {"\xB0\xA1\xB0", "가\uFFFD"},  // a character cut in half
      {"\xB0 x", "\uFFFD x"},
      {"\xB0\x1B[2J", "\uFFFD␛[2J"},
      {"\x80\xC9\xFE\xFF", "\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"a\0b\x01\t\n\x1F\x7F"s, "a␀b␁␉␊␟␡"},
  };
  for (const auto& c : cases) EXPECT_EQ(utf8_from_uhc(c.bytes), c.shown);

  // Any two bytes behind a character: no control character comes out raw, each byte shows.
  for (int pair = 0; pair < 0x10000; ++pair) {
    const char bytes[] = {'\xB0', '\xA1', static_cast<char>(pair >> 8), static_cast<char>(pair)};
    const std::string out = utf8_from_uhc({bytes, sizeof bytes});
    ASSERT_TRUE(out.starts_with("가") && out.size() >= 5) << std::hex << pair;
    const bool on_its_own = bytes[3] >= ' ' && bytes[3] <= '@';  // no character ends in it
    ASSERT_TRUE(!on_its_own || out.back() == bytes[3]) << std::hex << pair;
    for (std::size_t i = 0; i < out.size(); ++i) {
      const auto byte = static_cast<unsigned char>(out[i]);
      const bool c1 = byte == 0xC2 && static_cast<unsigned char>(out[i + 1]) < 0xA0;
      ASSERT_TRUE(byte >= ' ' && byte != 0x7F && !c1) << std::hex << pair;
    }
  }
}

TEST(Statistics, CountKindsQueuesTransactionsAndTheTimesOfServices) {
  Stats stats;
  DecodedRecord record;
  const auto count = [&](int queue, char type, std::string_view elapsed, std::string_view depth,
                         std::string_view svc_id, std::size_t size = kRecordTextSize) {
    TRAN_LOGF_QUE_DATA data =
        message(type, std::string(elapsed) + " 0000000000 " + depth.data(), 377);
    std::memcpy(data.view + 56, svc_id.data(), svc_id.size());
    decode(data, size, record);
    count_record(stats, queue, record);
  };
  count(0, '1', "0000000000", "01", "TRANSFER");
  count(0, '2', "0000000700", "02", "LEDGER00");
  count(0, '2', "0000000300", "01", "TRANSFER");
  count(3, '2', "0000000500", "01", "TRANSFER");
  count(3, '2', "0000000900", "01", "BALANCE0");
  count(3, '2', "0000000000", "01", "OWNTIMES");  // its caller gave the time
  count(3, '2', "-000000001", "01", "OWNTIMES");
  count(15, '?', "0000000900", "01", "TRANSFER");
  count(99, '1', "0000000900", "01", "TRANSFER", 12);
  EXPECT_EQ(stats.records, 9u);
  EXPECT_EQ(stats.by_kind[1], 6u);
  EXPECT_EQ(stats.unknown, 1u);
  EXPECT_EQ(stats.malformed, 1u);
  EXPECT_EQ(stats.by_queue[3], 4u);
  EXPECT_EQ(stats.by_queue[15], 1u);
  EXPECT_EQ(stats.transactions_started, 1u);
  EXPECT_EQ(stats.transactions_ended, 5u);

  const std::vector<ServiceRow> rows = slowest_services(stats, 10);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].svc_id, "BALANCE000000001");
  EXPECT_EQ(rows[1].svc_id, "TRANSFER00000001");
  EXPECT_EQ(rows[1].times.count, 2u);
  EXPECT_EQ(rows[1].times.total_us, 800u);
  EXPECT_EQ(rows[1].times.longest_us, 500u);
  EXPECT_EQ(rows[1].times.longest_gid, "20260801093000000HQ0001A0000001X");

  for (std::size_t i = 0; i < kMostServices; ++i)
    count(0, '2', "0000000001", "01", std::to_string(10'000'000 + i));
  EXPECT_EQ(stats.services.size(), kMostServices);
  EXPECT_EQ(stats.services_left_out, 2u);
}

}  // namespace
}  // namespace varn
