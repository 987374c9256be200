// Messages as named fields, texts as UTF-8, and what a collection of them adds up to. The bytes are
// laid out by hand from the table of formats.
#include "collector/decode.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "collector/stats.h"
#include "support/support.h"

namespace varn {
namespace {

using namespace std::string_literals;
using test::euc_kr;

// What stands in a record behind its type, as shown() shows it.
const std::string kHead =
    " hdr_cd=AB hdr_flag=7 gid=20260801093000000HQ0001A0000001X proc_nm=bank-0123456789 "
    "svc_id=TRANSFER00000001 host_name=host-0123456789 pid=00004711 tid=000000000004712 "
    "mtr_tid_idx=00052 pidx=00042 date=20260801 time=093000123456 ";
const std::string kServiceCommon =
    "elapsed_us=0000001234 dbio_elapsed_us=0000000567 depth=01 ext_flag=E trsc_grco_br=110001 "
    "chnl_typ_cd=WEB recv_svc_cd=RECEIVER0001 scrn_id=SCREEN001 emp_no=EMP0001 proc_rslt_dv_cd=1 "
    "std_tmsg_err_cd=TGERR0001 ";
const std::string kService =
    kServiceCommon +
    "std_tmsg_len=00000400 ipv6_adr=2001:0db8:0000:0000:0000:0000:0000:0001 fst_trms_sys_cd=FST "
    "trms_sys_cd=TRS rqst_rsps_dv_cd=R trsc_sync_dv_cd=S rslt_recv_svc_cd=RSLTRECV0001 "
    "eai_intf_id=EAI-INTERFACE-01 dsbl_sys_cd=DSB otsd_inst_cd=INST otsd_biz_cd=BIZ "
    "fst_trms_mdcl_ctt=MEDIUM-0123456789-0123456789-0123456789 spare1=X spare2=Y ";
const std::string kNotice = "code=C001 recv_svc_cd=RECV00000001 chnl_class=CHNL ";

// The bytes of fields that are shown so.
std::string bytes_of(const std::string& shown) {
  return std::regex_replace(shown, std::regex("[a-z0-9_]+="), "");
}

TRAN_LOGF_QUE_DATA message(char rec_type, const std::string& body, std::uint32_t length) {
  TRAN_LOGF_QUE_DATA data;
  std::memset(&data, ' ', sizeof data);
  data.length = length;
  const std::string bytes = rec_type + bytes_of(kHead) + body;
  std::memcpy(data.view, bytes.data(), bytes.size());
  return data;
}

std::string shown(const TRAN_LOGF_QUE_DATA& data, std::size_t size = kRecordTextSize) {
  DecodedRecord record;
  decode(data, size, record);
  EXPECT_EQ(record.length, data.length);
  EXPECT_EQ(record.malformed, size != kRecordTextSize);
  std::string text = record.kind == nullptr ? "" : std::string(record.kind->name) + ": ";
  for (const FieldText& field : record.fields)
    text += std::string(field.name) + "=" + utf8_from_uhc(field.bytes) + " ";
  return text;
}

TEST(Decoding, NamesEveryFieldOfEveryKind) {
  const std::string korean = "이체 완료: 김민준";
  std::string wide;  // as wide as the field: its last byte ends a character
  for (int i = 0; i < 256; ++i) wide += "가";
  const struct {
    char rec_type;
    std::string name;
    std::uint32_t length;
    std::string body, fields;
  } cases[] = {
      {'1', "start", 377, bytes_of(kService), kService},
      {'2', "end", 377, bytes_of(kService), kService},
      {'9', "error", 377, bytes_of(kService), kService},
      {'B', "dbio", 499, euc_kr(korean), "text=" + korean + " "},
      {'C', "call", 499, "  leading blanks stay", "text=  leading blanks stay "},
      {'E', "errinfo", 522, bytes_of(kNotice) + euc_kr(korean),
       kNotice + "message=" + korean + " "},
      {'I', "info", 499, euc_kr(korean), "message=" + korean + " "},
      {'Q', "sql", 499, "select '\x8C\x63\x94\xEE'", "text=select '똠뷁' "},
      {'V', "event", 684, bytes_of(kNotice) + euc_kr(wide), kNotice + "message=" + wide + " "},
      {'X', "info_ex", 504, "C001 " + euc_kr(korean), "code=C001 message=" + korean + " "},
  };
  static_assert(std::size(cases) == kRecordKinds.size());
  for (const auto& c : cases)
    EXPECT_EQ(shown(message(c.rec_type, c.body, c.length)),
              c.name + ": rec_type=" + c.rec_type + kHead + c.fields);
}

TEST(Decoding, ShowsWhatNoTableCovers) {
  EXPECT_EQ(shown(message('?', "whatever it is", 0xFFFF'FFFF)),
            "rec_type=?" + kHead + "text=whatever it is ");

  const std::string tail = "tail=" + bytes_of(kService.substr(kServiceCommon.size()));
  for (const std::uint32_t length : {0u, 376u, 0xFFFF'FFFFu})
    EXPECT_EQ(shown(message('2', bytes_of(kService), length)),
              "end: rec_type=2" + kHead + kServiceCommon + tail);

  const TRAN_LOGF_QUE_DATA whole = message('1', bytes_of(kService), 377);
  for (const std::size_t size : {0u, 3u, 4u, 5u, 20u, 783u, 785u, 100'000u}) {
    std::string text =
        std::string(whole.view, sizeof whole.view).substr(0, size < 4 ? 0 : size - 4);
    text.erase(text.find_last_not_of(' ') + 1);
    EXPECT_EQ(shown(whole, size), "text=" + text + " ") << size;
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
  const auto count = [&](int queue, char type, const std::string& elapsed, const char* depth,
                         std::string_view svc_id, std::size_t size = kRecordTextSize) {
    TRAN_LOGF_QUE_DATA data = message(type, elapsed + " 0000000000 " + depth, 377);
    DecodedRecord record;
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
