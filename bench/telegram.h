// A standard telegram, the calls that give it whole, and plain calls with the very same texts.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "layout/sttl.h"
#include "layout/tong_record.h"
#include "varn/tran.h"

namespace varn::bench {

inline constexpr std::size_t kTelegramSize = 2048;
inline constexpr std::size_t kTelegramRecord = tong_record_size(kTelegramSize);

inline constexpr std::string_view kTelegramGid = "202611220930WEB010000000000001AA";
inline constexpr std::string_view kWholeServiceId = "DEPBAL001V01";
inline constexpr std::string_view kTracedServiceId = kWholeServiceId.substr(0, 9);

// A text of full width in every field that is read; no error, so that its end reports none.
inline constexpr std::array<char, kTelegramSize> kTelegram = [] {
  std::array<char, kTelegramSize> telegram = {};
  telegram.fill(' ');
  const auto put = [&](tran_sttl_field field, std::string_view text) {
    std::ranges::copy(text, telegram.begin() + field.offset);
  };
  for (const TelegramText& text : kTelegramTexts)
    std::fill_n(telegram.begin() + text.standard.offset, text.standard.length, 'A');
  put(sttl::k_STD_TMSG_LEN, "00002048");
  put(sttl::k_GLBL_ID, kTelegramGid);
  put(sttl::k_PROC_RSLT_DV_CD, "0");
  return telegram;
}();

// What a plain call gives for this text.
consteval std::string_view telegram_text(Pair pair) {
  if (pair == kPair_hdr_cd) return "AA";
  if (pair == kPair_hdr_flag) return "A";
  if (pair == kPair_gid) return kTelegramGid;
  if (pair == kPair_svc_id) return kTracedServiceId;
  if (pair == kPair_ext_flag) return "0";
  for (const TelegramText& text : kTelegramTexts)
    if (text.pair == pair)
      return {kTelegram.data() + text.standard.offset,
              static_cast<std::size_t>(text.standard.length)};
  return {};
}

#define VARN_TELEGRAM_TEXT(name, width) \
  , telegram_text(kPair_##name).data(), static_cast<int>(telegram_text(kPair_##name).size())
inline int start_plainly() { return TRAN_START(-1 TRAN_FIELD_LIST(VARN_TELEGRAM_TEXT)); }
inline int end_plainly() { return TRAN_END(-1 TRAN_FIELD_LIST(VARN_TELEGRAM_TEXT)); }
#undef VARN_TELEGRAM_TEXT

#define VARN_WHOLE_TELEGRAM                                                                   \
  -1, "AA", 2, "A", 1, kTelegramGid.data(), int{kTelegramGid.size()}, kWholeServiceId.data(), \
      int{kWholeServiceId.size()}, kTelegram.data(), int{kTelegramSize}, 1, 0
inline int start_by_telegram() { return TRAN_STARTX(VARN_WHOLE_TELEGRAM); }
inline int end_by_telegram() { return TRAN_ENDX(VARN_WHOLE_TELEGRAM); }
#undef VARN_WHOLE_TELEGRAM

}  // namespace varn::bench
