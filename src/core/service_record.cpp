#include "core/service_record.h"

#include <cstring>
#include <string_view>

#include "core/service.h"
#include "core/service_text.h"
#include "util/shared_word.h"

namespace varn {

bool is_linked_channel(Text chnl_typ_cd) {
  const std::string_view channel = chnl_typ_cd.clipped(kChnlTypCd.width);
  return channel == "ICT" || channel == "ICC";
}

bool is_same_gid(Text a, Text b) {
  const auto fills = [](Text gid) { return gid.given() && gid.len >= std::int32_t{kComparedGid}; };
  if (fills(a) && fills(b)) return std::memcmp(a.ptr, b.ptr, kComparedGid) == 0;
  char padded[2][kComparedGid];
  put_padded(padded[0], kComparedGid, a);
  put_padded(padded[1], kComparedGid, b);
  return std::memcmp(padded[0], padded[1], kComparedGid) == 0;
}

void set_depth(MTR_CXT_VAR& var, int depth) {
  const auto shown = static_cast<std::int8_t>(depth);
  store(var.svc_depth, shown);
  if (var.ptrc != nullptr) store(var.ptrc->entry_depth, shown);
}

void put_service(MTR_CXT_VAR& var, const RecordKind& kind, Pairs pairs, std::int64_t elapsed_us,
                 std::int64_t dbio_elapsed_us) {
  char* const view = var.rec.view;
  const auto put_number = [view](const Field& field, std::int64_t number) {
    if (number == 0)  // as all of a start's
      std::memset(view + field.at, '0', field.width);
    else
      put_digits(view + field.at, field.width, number);
    view[field.at + field.width] = ' ';
  };
  put_number(kElapsed, elapsed_us);
  put_number(kDbioElapsed, dbio_elapsed_us);
  put_number(kDepth, var.svc_depth);
  if (kind.body.size() == kPartialBody.size())
    put_fields<kPartialBody, kServiceNumbers>(view, pairs.subspan(kHeadPairs));
  else
    put_fields<kServiceBody, kServiceNumbers>(view, pairs.subspan(kHeadPairs));
  close_record(var, kind);
}

void show_started(MTR_CXT_VAR& var, char chnl_class, std::int64_t second) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  const char* const view = var.rec.view;
  store(entry.tran_state, 'f');
  store(entry.svc_mark_time, second);
  std::memcpy(entry.main_gid, view + kGid.at, sizeof entry.main_gid);
  std::memcpy(entry.main_svc_id, view + kSvcId.at, sizeof entry.main_svc_id);
  std::memcpy(entry.main_recv_svc_cd, view + kRecvSvcCd.at, sizeof entry.main_recv_svc_cd);
  store(entry.chnl_class, chnl_class);
}

void show_ended(MTR_CXT_VAR& var, std::int64_t second) {
  store(var.ptrc->tran_state, 'g');
  store(var.ptrc->svc_mark_time, second);
}

char recorded_chnl_class(const MTR_CXT_VAR& var) {
  return is_linked_channel({var.rec.view + kChnlTypCd.at, kChnlTypCd.width}) ? 'C' : 'O';
}

}  // namespace varn
