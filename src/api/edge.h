// What the exported calls share: their argument lists as arrays of texts, in the order in which the
// records' tables want them.
#pragma once

#include "core/call.h"
#include "util/text.h"
#include "varn/tran.h"

#define VARN_PAIR_VIEW(name, width) ::varn::Text{name, name##_len},

// The 29 pairs of a transaction, and the 20 of a partial one.
#define VARN_FIELD_VIEWS TRAN_FIELD_LIST(VARN_PAIR_VIEW)
#define VARN_PARTIAL_FIELD_VIEWS TRAN_PARTIAL_FIELD_LIST(VARN_PAIR_VIEW)

// The seven pairs that every record call begins with.
#define VARN_HEAD_VIEWS                                                                 \
  {hdr_cd, hdr_cd_len}, {hdr_flag, hdr_flag_len}, {gid, gid_len}, {svc_id, svc_id_len}, \
      {pid_str, pid_str_len}, {date_str, date_str_len}, {                               \
    time_str, time_str_len                                                              \
  }
