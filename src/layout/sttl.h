// The fields of a telegram: of the standard layout as varn/sttl.h publishes them, and of the fixed
// one.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "layout/record.h"
#include "varn/sttl.h"

namespace varn {

// Named without the leading underscore: constants where the exported ones are data.
namespace sttl {
#define VARN_STTL_CONSTANT(name, offset, length) \
  inline constexpr tran_sttl_field k##name{offset, length};
TRAN_STTL_FIELD_LIST(VARN_STTL_CONSTANT)
#undef VARN_STTL_CONSTANT
}  // namespace sttl

// The texts of a transaction that a telegram gives, and where: in the standard layout, and in the
// fixed one, whose fields have the width of the record's. -1: put together from other places.
struct TelegramText {
  Pair pair;
  tran_sttl_field standard;
  std::int16_t fixed_at;
};

// clang-format off
inline constexpr std::array kTelegramTexts{
    TelegramText{kPair_trsc_grco_br,      {sttl::k_TRSC_GRCO_CD.offset,
                                           sttl::k_TRSC_GRCO_CD.length + sttl::k_TRSC_BR_NO.length},
                                                                     -1},
    TelegramText{kPair_chnl_typ_cd,       sttl::k_CHNL_TYP_CD,      253},
    TelegramText{kPair_recv_svc_cd,       sttl::k_RECV_SVC_CD,      160},
    TelegramText{kPair_scrn_id,           sttl::k_SCRN_ID,          467},
    TelegramText{kPair_emp_no,            sttl::k_EMP_NO,           386},
    TelegramText{kPair_proc_rslt_dv_cd,   sttl::k_PROC_RSLT_DV_CD,  220},
    TelegramText{kPair_std_tmsg_err_cd,   sttl::k_STD_TMSG_ERR_CD,  236},
    TelegramText{kPair_std_tmsg_len,      sttl::k_STD_TMSG_LEN,      -1},
    TelegramText{kPair_ipv6_adr,          sttl::k_IPV6_ADR,          43},
    TelegramText{kPair_fst_trms_sys_cd,   sttl::k_FST_TRMS_SYS_CD,   98},
    TelegramText{kPair_trms_sys_cd,       sttl::k_TRMS_SYS_CD,      102},
    TelegramText{kPair_rqst_rsps_dv_cd,   sttl::k_RQST_RSPS_DV_CD,  122},
    TelegramText{kPair_trsc_sync_dv_cd,   sttl::k_TRSC_SYNC_DV_CD,  124},
    TelegramText{kPair_rslt_recv_svc_cd,  sttl::k_RSLT_RECV_SVC_CD, 173},
    TelegramText{kPair_eai_intf_id,       sttl::k_EAI_INTF_ID,      186},
    TelegramText{kPair_dsbl_sys_cd,       sttl::k_DSBL_SYS_CD,      232},
    TelegramText{kPair_otsd_inst_cd,      sttl::k_OTSD_INST_CD,     514},
    TelegramText{kPair_otsd_biz_cd,       sttl::k_OTSD_BIZ_CD,      519},
    TelegramText{kPair_fst_trms_mdcl_ctt, sttl::k_FST_TRMS_MDCL_CTT, 560},
};
// clang-format on
static_assert(sttl::k_TRSC_GRCO_CD.offset + sttl::k_TRSC_GRCO_CD.length ==
              sttl::k_TRSC_BR_NO.offset);

// Of the fixed layout.
inline constexpr std::size_t kFixedGidAt = 10;
inline constexpr std::size_t kFixedGrcoCdAt = 402;
inline constexpr std::size_t kFixedBrNoAt = 405;

// The error-information code of a result that is not success.
constexpr const char* error_code_of(char result) {
  switch (result) {
    case '1':
      return "1105";
    case '8':
      return "1106";
    case '9':
      return "1107";
    default:
      return "9999";
  }
}

// A telegram that is logged has at least its header.
inline constexpr std::size_t kLeastTelegram = 512;

}  // namespace varn
