#include "requests.h"

#include "business.h"
#include "examples/common/gid.h"
#include "frame.h"

namespace gateway {
namespace {

constexpr std::string_view kKim = "110-201-000001";
constexpr std::string_view kLee = "110-201-000002";
constexpr std::string_view kPark = "110-201-000003";
constexpr std::string_view kNobody = "110-999-000000";
constexpr std::string_view kErrorService = "ERRRLY001V01";
constexpr std::size_t kShortSize = 300;

// Behind one item name, and behind that one message: where the next counts of an error part are.
constexpr tran_sttl_field kMessageCount = {583, 2};
constexpr tran_sttl_field kAdditionalCount = {894, 2};

ErrorPart error_to_pass_on(const RequestKind& kind) {
  ErrorPart part = {{"승인번호"}, {}, {}};
  for (std::size_t i = 0; i < kind.expected.messages; ++i)
    part.messages.push_back({"KFT001007", "승인번호가 일치하지 않습니다."});
  for (std::size_t i = 0; i < kind.expected.additional; ++i)
    part.additional.push_back({"KFT001907", "원거래 내역을 확인하십시오."});
  return part;
}

void make_error(Telegram& telegram, const RequestKind& kind) {
  telegram.set(_PROC_RSLT_DV_CD, {&kind.expected.result, 1});
  telegram.set(_DSBL_SYS_CD, "KFT");
  telegram.set(_STD_TMSG_ERR_CD, "KFT001007");
  telegram.set_error_part(error_to_pass_on(kind));
  if (kind.lie) telegram.set(kind.lie->count, kind.lie->text);
}

void make_request(Telegram& telegram, const BusinessData& data) {
  telegram.set(_STD_TMSG_DAT_KIND_CD, kDataKind);
  telegram.set(kAccount, data.account);
  telegram.set(kCounterBank, data.counter_bank);
  telegram.set(kCounterAccount, data.counter_account);
  telegram.set(kAmount, data.amount);
}

std::string fault_in_error_part(const Telegram& answer, const RequestKind& kind) {
  const auto part = answer.error_part();
  if (!part) return "no whole error part";
  if (part->messages.size() != kind.expected.messages) return "another number of messages";
  if (part->additional.size() != kind.expected.additional)
    return "another number of additional messages";
  for (const Message& message : part->messages)
    if (message.code.empty() || message.text.empty()) return "an empty message";
  return {};
}

}  // namespace

const std::vector<RequestKind>& request_kinds() {
  // clang-format off
  static const std::vector<RequestKind> kinds = {
      {"balance", kBalanceService, "MBK", {{kKim}}, {.holder = "김민준"}},
      {"transfer", kTransferService, "WEB", {{kKim, kLee, "1000"}}, {.holder = "이서연"}},
      {"linked balance", kBalanceService, "ICT", {{kPark}}, {.holder = "박도윤"}},
      {"client handler", kClientHandlerService, "BRN", {{kLee}}, {.holder = "이서연"}},
      {"unknown account", kTransferService, "WEB", {{kNobody, kLee, "1000"}}, {'1', 1}},
      {"short of money", kTransferService, "ATM", {{kLee, kKim, "999999999999"}}, {'1', 1, 2}},
      {"linked transfer", kTransferService, "ICC", {{kPark, kKim, "5000"}}, {.holder = "김민준"}},
      {"linked, bank under maintenance", kTransferService, "ICT",
       {{kPark, kKim, "5000", kBankUnderMaintenance}}, {'8', 1, 1}},
      {"bank without answer", kTransferService, "MBK",
       {{kKim, kLee, "5000", kBankWithoutAnswer}}, {'8'}},
      {"unknown service", "NOSUCH001V01", "WEB", {{kKim}}, {'9', 1, 1}},
      {"bad fields", kTransferService, "WEB", {{kKim, "", "만원"}}, {'9', 2, 3}},
      {"client handler, unknown account", kClientHandlerService, "BRN", {{kNobody}}, {'1', 1}},
      {"error to pass on", kErrorService, "WEB", {}, {'1', 1, 2}},
      {"items past the end", kErrorService, "WEB", {}, {'9', 1},
       Lie{_ERR_ORGN_ITEM_REPT_TCNT, "99"}},
      {"number of messages is none", kErrorService, "WEB", {}, {'8', 1}, Lie{kMessageCount, "7X"}},
      {"additional messages past the end", kErrorService, "WEB", {}, {'2', 1, 1},
       Lie{kAdditionalCount, "99"}},
  };
  // clang-format on
  return kinds;
}

Telegram request_of(const RequestKind& kind, const std::string& gid) {
  Telegram telegram;
  telegram.set(_GLBL_ID, gid);
  telegram.set(_IPV6_ADR, "2001:db8:20::7");
  telegram.set(_FST_TRMS_SYS_CD, kind.channel);
  telegram.set(_TRMS_SYS_CD, kind.channel);
  telegram.set(_RQST_RSPS_DV_CD, "S");
  telegram.set(_TRSC_SYNC_DV_CD, "S");
  telegram.set(_RECV_SVC_CD, kind.service);
  telegram.set(_CHNL_TYP_CD, kind.channel);
  telegram.set(_TRSC_GRCO_CD, "01");
  telegram.set(_TRSC_BR_NO, "0101");
  telegram.set(_SCRN_ID, "GWY030110");
  if (kind.data)
    make_request(telegram, *kind.data);
  else
    make_error(telegram, kind);
  telegram.finish();
  return telegram;
}

std::string fault_in(const Telegram& answer, const RequestKind& kind, const Telegram& request) {
  if (answer.get(_RQST_RSPS_DV_CD) != "R") return "not a response";
  if (answer.get(_GLBL_ID) != request.get(_GLBL_ID)) return "another GID";
  if (answer.get(_RECV_SVC_CD) != kind.service) return "another service";
  if (answer.get(_PROC_RSLT_DV_CD) != std::string_view(&kind.expected.result, 1))
    return "another result";
  if (!kind.data) {
    Telegram passed = request;
    passed.set(_RQST_RSPS_DV_CD, "R");
    return passed.bytes() == answer.bytes() ? "" : "not passed on as it was";
  }
  if (kind.expected.result != '0') return fault_in_error_part(answer, kind);
  if (answer.get(_STD_TMSG_DAT_KIND_CD) != kDataKind) return "no business data";
  return answer.get(kHolder) == kind.expected.holder ? "" : "another holder";
}

std::vector<BrokenTelegram> broken_telegrams() {
  const std::string whole = request_of(request_kinds()[0], example::new_gid("BRK")).bytes();
  const std::string behind_length = whole.substr(kLengthSize);
  return {{"length is no number", "ABCDEFGH" + behind_length},
          {"length of less than itself", "00000007" + behind_length},
          {"length of more than any telegram", "01000001" + behind_length},
          {"cut off in its length", whole.substr(0, kLengthSize / 2)},
          {"cut off in its middle", whole.substr(0, whole.size() / 2)}};
}

Telegram short_telegram() {
  Telegram telegram = request_of(request_kinds()[0], example::new_gid("BRK"));
  telegram.resize(kShortSize);
  telegram.finish();
  return telegram;
}

std::string fault_in_refusal(const Telegram& answer, std::string_view code) {
  if (answer.get(_RQST_RSPS_DV_CD) != "R") return "not a response";
  if (answer.get(_PROC_RSLT_DV_CD) != "9") return "another result";
  const auto part = answer.error_part();
  if (!part || part->messages.size() != 1) return "not one message";
  return part->messages[0].code == code ? "" : "another message";
}

}  // namespace gateway
