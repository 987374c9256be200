// The trace record: the message that travels on a queue, and for each kind of record which field
// stands where. The composer, the collector and the tests all read these tables.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

#include "layout/pin.h"
#include "varn/tran.h"

namespace varn {

// A System V message: its type, then 784 bytes of text, of which the first four hold the record's
// length. The text from the record-type byte on is the "view"; all field positions count from
// there.
struct TRAN_LOGF_QUE_DATA {
  std::int64_t mtype;    // eight blanks; the collector receives messages of any type
  std::uint32_t length;  // bytes of the view up to the end of the body, its last blank included
  char view[780];        // blank behind the body
};
VARN_PIN(TRAN_LOGF_QUE_DATA, length, 8);
VARN_PIN(TRAN_LOGF_QUE_DATA, view, 12);
static_assert(sizeof(TRAN_LOGF_QUE_DATA) == 792);
static_assert(std::is_standard_layout_v<TRAN_LOGF_QUE_DATA>);

inline constexpr std::size_t kRecordTextSize =
    sizeof(TRAN_LOGF_QUE_DATA) - offsetof(TRAN_LOGF_QUE_DATA, length);
inline constexpr std::int64_t kRecordMsgType = 0x2020202020202020;
static_assert(kRecordTextSize == 784);

// One field: `width` bytes of text at `at` in the view, and one blank behind them.
struct Field {
  std::string_view name;
  std::uint16_t at;
  std::uint16_t width;

  constexpr std::size_t end() const { return at + width + 1u; }
};

// Whether the fields follow one another from `begin` to `end` without gap or overlap.
consteval bool tiles(std::span<const Field> fields, std::size_t begin, std::size_t end) {
  std::size_t at = begin;
  for (const Field& field : fields) {
    if (field.at != at) return false;
    at = field.end();
  }
  return at == end;
}

inline constexpr std::size_t kBodyAt = 148;

// clang-format off
inline constexpr Field kRecType    {"rec_type",      0,  1};
inline constexpr Field kHdrCd      {"hdr_cd",        2,  2};
inline constexpr Field kHdrFlag    {"hdr_flag",      5,  1};
inline constexpr Field kGid        {"gid",           7, 32};
inline constexpr Field kProcNm     {"proc_nm",      40, 15};  // container name when there is one
inline constexpr Field kSvcId      {"svc_id",       56, 16};
inline constexpr Field kHostName   {"host_name",    73, 15};
inline constexpr Field kPid        {"pid",          89,  8};
inline constexpr Field kTid        {"tid",          98, 15};
inline constexpr Field kMtrTidIdx  {"mtr_tid_idx", 114,  5};  // bucket of the thread's context
inline constexpr Field kPidx       {"pidx",        120,  5};  // entry in the process-thread table
inline constexpr Field kDate       {"date",        126,  8};  // YYYYMMDD, local
inline constexpr Field kTime       {"time",        135, 12};  // HHMMSS and microseconds, local
// clang-format on

inline constexpr std::array kHeaderFields{kRecType, kHdrCd,    kHdrFlag, kGid, kProcNm,
                                          kSvcId,   kHostName, kPid,     kTid, kMtrTidIdx,
                                          kPidx,    kDate,     kTime};
static_assert(tiles(kHeaderFields, 0, kBodyAt), "header: gap, overlap or wrong total");

// clang-format off
inline constexpr Field kElapsed     {"elapsed_us",        148, 10};  // response time; outermost end
inline constexpr Field kDbioElapsed {"dbio_elapsed_us",   159, 10};  // database time; outermost end
inline constexpr Field kDepth       {"depth",             170,  2};  // 01: the outermost service
inline constexpr Field kChnlTypCd   {"chnl_typ_cd",       182,  3};
inline constexpr Field kRecvSvcCd   {"recv_svc_cd",       186, 12};

// Service start, end and error. From ext_flag on, the pairs 8 to 29 of a transaction, in order.
inline constexpr std::array kServiceBody{
    kElapsed,
    kDbioElapsed,
    kDepth,
    Field{"ext_flag",          173,  1},
    Field{"trsc_grco_br",      175,  6},
    kChnlTypCd,
    kRecvSvcCd,
    Field{"scrn_id",           199,  9},
    Field{"emp_no",            209,  7},
    Field{"proc_rslt_dv_cd",   217,  1},
    Field{"std_tmsg_err_cd",   219,  9},
    Field{"std_tmsg_len",      229,  8},
    Field{"ipv6_adr",          238, 39},
    Field{"fst_trms_sys_cd",   278,  3},
    Field{"trms_sys_cd",       282,  3},
    Field{"rqst_rsps_dv_cd",   286,  1},
    Field{"trsc_sync_dv_cd",   288,  1},
    Field{"rslt_recv_svc_cd",  290, 12},
    Field{"eai_intf_id",       303, 16},
    Field{"dsbl_sys_cd",       320,  3},
    Field{"otsd_inst_cd",      324,  4},
    Field{"otsd_biz_cd",       329,  3},
    Field{"fst_trms_mdcl_ctt", 333, 39},
    Field{"spare1",            373,  1},
    Field{"spare2",            375,  1},
};
// A partial start and end: the same up to the error code, then the caller's own five texts.
inline constexpr std::size_t kCommonServiceFields = 11;
static_assert(kServiceBody[kCommonServiceFields - 1].name == "std_tmsg_err_cd");
inline constexpr std::array kPartialBody = [] {
  std::array<Field, kCommonServiceFields + 5> fields{};
  std::copy_n(kServiceBody.begin(), kCommonServiceFields, fields.begin());
  fields[11] = {"pt_param_1",      229, 30};
  fields[12] = {"pt_param_2",      260, 20};
  fields[13] = {"pt_param_3",      281, 20};
  fields[14] = {"pt_param_4",      302, 30};
  fields[15] = {"pt_param_5",      333,  3};
  return fields;
}();
// Business call, database call, SQL piece: one text that the traced process has formatted.
inline constexpr std::array kCallBody{
    Field{"text",              148, 350},
};
inline constexpr std::array kInfoBody{
    Field{"message",           148, 350},
};
inline constexpr std::array kInfoExBody{
    Field{"code",              148,   4},
    Field{"message",           153, 350},
};
inline constexpr std::array kEventBody{
    Field{"code",              148,   4},
    Field{"recv_svc_cd",       153,  12},
    Field{"chnl_class",        166,   4},
    Field{"message",           171, 512},
};
inline constexpr std::array kErrInfoBody{
    Field{"code",              148,   4},
    Field{"recv_svc_cd",       153,  12},
    Field{"chnl_class",        166,   4},
    Field{"message",           171, 350},
};
// clang-format on

// Places of the pairs in a call's list of texts, named as in TRAN_FIELD_LIST: seven for the header
// of every record, then the record's own.
// clang-format off
#define VARN_PAIR_PLACE(name, width) kPair_##name,
enum Pair : std::size_t {
  TRAN_FIELD_LIST(VARN_PAIR_PLACE)
  kServicePairs,
  kHeadPairs = kPair_time_str + 1,
};
#undef VARN_PAIR_PLACE
// clang-format on
inline constexpr std::size_t kServiceNumbers =
    3;  // body fields that no pair fills: elapsed to depth

struct RecordKind {
  char rec_type;
  std::string_view name;  // as the collector shows it
  std::uint8_t log_flag;  // its bit in TRAN_LOGF_QUE_INFO::log_flag_set
  char log_letter;        // its letter in TRAN_LOG_FLAG_SET
  std::uint8_t svc_flag;  // its bit in SVC_HASH_ENT::trace_flags; 0: not filtered by service
  std::span<const Field> body;

  constexpr std::uint32_t length() const { return static_cast<std::uint32_t>(body.back().end()); }
};

inline constexpr std::array kRecordKinds{
    RecordKind{'1', "start", 0x01, 'S', 0x01, kServiceBody},
    RecordKind{'2', "end", 0x01, 'S', 0x01, kServiceBody},
    RecordKind{'9', "error", 0x02, 'E', 0x02, kServiceBody},
    RecordKind{'B', "dbio", 0x08, 'B', 0x08, kCallBody},
    RecordKind{'C', "call", 0x10, 'C', 0x10, kCallBody},
    RecordKind{'E', "errinfo", 0x02, 'E', 0x02, kErrInfoBody},
    RecordKind{'I', "info", 0x20, 'I', 0x20, kInfoBody},
    RecordKind{'Q', "sql", 0x80, 'Q', 0x80, kCallBody},
    RecordKind{'V', "event", 0x04, 'V', 0x04, kEventBody},
    RecordKind{'X', "info_ex", 0x40, 'X', 0x00, kInfoExBody},
};

inline constexpr auto kKindOfType = [] {
  std::array<std::int16_t, 256> place{};
  place.fill(-1);
  for (std::size_t i = 0; i < kRecordKinds.size(); ++i)
    place[static_cast<unsigned char>(kRecordKinds[i].rec_type)] = static_cast<std::int16_t>(i);
  return place;
}();

// Null for a byte that is no record type.
constexpr const RecordKind* record_kind(char rec_type) {
  const std::int16_t place = kKindOfType[static_cast<unsigned char>(rec_type)];
  return place < 0 ? nullptr : &kRecordKinds[static_cast<std::size_t>(place)];
}

// Those of partial transactions and web services; their length tells them from the others.
inline constexpr RecordKind kPartialStart{'1', "start", 0x01, 'S', 0x01, kPartialBody};
inline constexpr RecordKind kPartialEnd{'2', "end", 0x01, 'S', 0x01, kPartialBody};

constexpr const RecordKind* record_kind(char rec_type, std::uint32_t length) {
  for (const RecordKind* const partial : {&kPartialStart, &kPartialEnd})
    if (rec_type == partial->rec_type && length == partial->length()) return partial;
  return record_kind(rec_type);
}

// The kind of a type known at compile time.
template <char kRecType>
inline constexpr const RecordKind& kKind = *record_kind(kRecType);

static_assert(tiles(kServiceBody, kBodyAt, 377) && tiles(kPartialBody, kBodyAt, 337));
static_assert(tiles(kCallBody, kBodyAt, 499));
static_assert(tiles(kInfoBody, kBodyAt, 499) && tiles(kInfoExBody, kBodyAt, 504));
static_assert(tiles(kEventBody, kBodyAt, 684) && tiles(kErrInfoBody, kBodyAt, 522));

// The longest record, its length word included.
inline constexpr std::size_t kLongestRecord = kKind<'V'>.length() + sizeof(std::uint32_t);
static_assert(kLongestRecord == 688);

// The lists of a transaction's texts and the records' fields must say the same.
#define VARN_COUNT_PAIR(name, width) +1
inline constexpr std::size_t kPartialPairs = TRAN_PARTIAL_FIELD_LIST(VARN_COUNT_PAIR);
#undef VARN_COUNT_PAIR
static_assert(kHeadPairs == 7 && kServicePairs == 29 && kPartialPairs == 20);
static_assert(kServicePairs - kHeadPairs == kServiceBody.size() - kServiceNumbers);
static_assert(kPartialPairs - kHeadPairs == kPartialBody.size() - kServiceNumbers);

// The record's field that a pair behind the header's fills.
constexpr const Field& field_of_pair(Pair pair) {
  return kServiceBody[pair - kHeadPairs + kServiceNumbers];
}
static_assert(field_of_pair(kPair_chnl_typ_cd).at == kChnlTypCd.at);

}  // namespace varn
