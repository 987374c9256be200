/* libvarn: where the fields of a standard telegram (STTL) stand.
 *
 * A standard telegram is a request or response with one header of fixed-width text fields, each
 * found at an offset from the telegram's first byte. TRAN_STARTX and TRAN_ENDX read their fields by
 * this table; hosts and tools that build or read telegrams may do so too. The bytes are EUC-KR.
 *
 * The header has 512 bytes at least. Behind it, with data kind "EM", stands the error part:
 *
 *   _ERR_ORGN_ITEM_REPT_TCNT   so many _ERR_ORGN_ITEM_NM;
 *   _MSG_INFO_REPT_TCNT        so many entries of a _MSG_CD and a _RSPS_MSG_CTT;
 *   _ADTN_MSG_REPT_TCNT        so many entries of a _MSG_CD and an _ADTN_MSG.
 *
 * Counts are two decimal digits; from the second on, their places depend on the counts before.
 */
#ifndef VARN_STTL_H
#define VARN_STTL_H

#include <stdint.h>

#include "varn/tran.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The table: X(name, offset, length), in bytes. An offset of -1 depends on the counts before. */
/* clang-format off */
#define TRAN_STTL_FIELD_LIST(X)                                                              \
  X(_GLBL_ID,                  9,  32) /* global transaction id (GID) */                     \
  X(_STD_TMSG_LEN,             0,   8) /* length of the telegram, decimal */                 \
  X(_IPV6_ADR,                41,  39) /* IPv6 address */                                    \
  X(_FST_TRMS_SYS_CD,         93,   3) /* first transmitting system */                       \
  X(_TRMS_SYS_CD,             96,   3) /* transmitting system */                             \
  X(_RQST_RSPS_DV_CD,        104,   1) /* request or response */                             \
  X(_TRSC_SYNC_DV_CD,        105,   1) /* synchronous or asynchronous */                     \
  X(_RECV_SVC_CD,            132,  12) /* receive service code */                            \
  X(_RSLT_RECV_SVC_CD,       144,  12) /* service code that receives the result */           \
  X(_EAI_INTF_ID,            156,  16) /* EAI interface id */                                \
  X(_PROC_RSLT_DV_CD,        188,   1) /* result: '0' or blank success, all else an error */ \
  X(_DSBL_SYS_CD,            192,   3) /* failing system */                                  \
  X(_STD_TMSG_ERR_CD,        195,   9) /* error code */                                      \
  X(_CHNL_TYP_CD,            209,   3) /* channel type; "ICT" and "ICC" are linked */        \
  X(_EMP_NO,                 302,   7) /* employee number */                                 \
  X(_TRSC_GRCO_CD,           315,   2) /* group company; right before the branch */          \
  X(_TRSC_BR_NO,             317,   4) /* branch number */                                   \
  X(_SCRN_ID,                366,   9) /* screen id */                                       \
  X(_OTSD_INST_CD,           401,   4) /* outside institution */                             \
  X(_OTSD_BIZ_CD,            405,   3) /* outside business */                                \
  X(_FST_TRMS_MDCL_CTT,      435,  39) /* first-transmission medium */                       \
  X(_STD_TMSG_DAT_KIND_CD,   512,   2) /* data kind; "EM": an error part follows */          \
  X(_ERR_ORGN_ITEM_REPT_TCNT, 561,  2) /* error part: count of item names */                 \
  X(_ERR_ORGN_ITEM_NM,       563,  20) /* name of an item in error, the first of them */     \
  X(_MSG_INFO_REPT_TCNT,      -1,   2) /* count of messages */                               \
  X(_MSG_CD,                  -1,   9) /* code of a message or an additional message */      \
  X(_RSPS_MSG_CTT,            -1, 300) /* text of a message */                               \
  X(_ADTN_MSG_REPT_TCNT,      -1,   2) /* count of additional messages */                    \
  X(_ADTN_MSG,                -1, 200) /* text of an additional message */
/* clang-format on */

typedef struct tran_sttl_field {
  int32_t offset; /* from the telegram's first byte; -1: depends on the counts before */
  int32_t length; /* bytes */
} tran_sttl_field;

/* The same as constants: `_GLBL_ID.offset` is 9. */
/* NOLINTBEGIN(bugprone-reserved-identifier): the table's published names */
#define TRAN_STTL_DECLARE_FIELD(name, offset, length) VARN_API extern const tran_sttl_field name;
TRAN_STTL_FIELD_LIST(TRAN_STTL_DECLARE_FIELD)
#undef TRAN_STTL_DECLARE_FIELD
/* NOLINTEND(bugprone-reserved-identifier) */

#ifdef __cplusplus
}
#endif

#endif
