#include "core/record.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "core/gvar.h"
#include "hash/hash.h"
#include "util/errno_guard.h"
#include "util/msgq.h"
#include "util/shared_word.h"

namespace varn {
namespace {

// The hash of a transaction's GID serves all its records.
std::uint32_t queue_hash(MTR_CXT_VAR& var, const TRAN_LOGF_QUE_DATA& record) {
  const char* const gid = record.view + kGid.at;
  if (std::memcmp(var.hashed_gid, gid, sizeof var.hashed_gid) != 0) {
    std::memcpy(var.hashed_gid, gid, sizeof var.hashed_gid);
    var.gid_hash = get_hash_code(gid + write_qidx_idx_gid_rng_pos,
                                 static_cast<std::size_t>(write_qidx_idx_gid_rng_siz));
  }
  return var.gid_hash;
}

[[gnu::cold, gnu::noinline]] int count_failed_send(std::uint32_t que_no) {
  // A number past the last queue has no counter of its own, but every lost record is counted.
  add(gvar.que_info->que_fail_cnt[que_no % kMaxQueues], 1U);
  return TRAN_RC_NOT_SENT;
}

// A queue that was removed may have come back under its key: looked up at most once a second.
[[gnu::cold, gnu::noinline]] bool find_queue_again(std::uint32_t que_no) {
  static std::atomic<std::int64_t> last_looked[kMaxQueues];
  const std::int64_t second = time(nullptr);
  if (last_looked[que_no].exchange(second, std::memory_order_relaxed) == second) return false;
  const int msqid = create_msgq(gvar.msgq_key + static_cast<key_t>(que_no));
  if (msqid < 0) return false;
  store(gvar.msgq_id[que_no], msqid);
  return true;
}

[[gnu::cold, gnu::noinline]] int send_failed(std::uint32_t que_no,
                                             const TRAN_LOGF_QUE_DATA& record) {
  const bool is_gone = errno == EINVAL || errno == EIDRM;
  if (is_gone && find_queue_again(que_no) &&
      send_msgq(load(gvar.msgq_id[que_no]), &record, kRecordTextSize) == 0)
    return static_cast<int>(que_no);
  return count_failed_send(que_no);
}

}  // namespace

void put_header(const MTR_CXT_VAR& var, TRAN_LOGF_QUE_DATA& record, const RecordKind& kind,
                Pairs head, Text gid, const Stamp& stamp) {
  const auto given_or = [&](Pair pair, Text other) {
    return head[pair].given() ? head[pair] : other;
  };
  char* const view = record.view;
  view[kRecType.at] = kind.rec_type;
  put_field<kHdrCd>(view, head[kPair_hdr_cd]);
  put_field<kHdrFlag>(view, head[kPair_hdr_flag]);
  put_field<kGid>(view, gid);
  put_field<kPid>(view, given_or(kPair_pid_str, Text::of(var.pid_txt)));
  put_field<kDate>(view, given_or(kPair_date_str, Text::of(stamp.date)));
  put_field<kTime>(view, given_or(kPair_time_str, Text::of(stamp.time)));
}

void close_record(MTR_CXT_VAR& var, const RecordKind& kind) {
  const std::uint32_t length = kind.length();
  const std::uint32_t used = load(var.rec_used);
  var.rec.length = length;
  if (length < used) std::memset(var.rec.view + length, ' ', used - length);
  store(var.rec_used, length);
}

int tran_logb(MTR_CXT_VAR& var, const TRAN_LOGF_QUE_DATA& record) {
  const std::uint32_t que_no = queue_hash(var, record) & load(gvar.que_info->que_mask);
  if (var.ptrc != nullptr) store(var.ptrc->que_idx, static_cast<std::uint8_t>(que_no));
  if (record_kind(record.view[kRecType.at]) == nullptr) return TRAN_RC_UNKNOWN_TYPE;
  // The mask is the collector's and may have grown past the queues that this process opened.
  if (que_no >= static_cast<std::uint32_t>(gvar.msgq_cnt)) return count_failed_send(que_no);
  const ErrnoGuard errno_kept;
  if (send_msgq(load(gvar.msgq_id[que_no]), &record, kRecordTextSize) == 0) [[likely]]
    return static_cast<int>(que_no);
  return send_failed(que_no, record);
}

}  // namespace varn
