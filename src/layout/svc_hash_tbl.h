// The service table: services with tracing settings of their own. The collector fills it under its
// semaphore; traced processes look services up without it.
#pragma once

#include <cstdint>
#include <type_traits>

#include "layout/index_stack.h"
#include "layout/pin.h"

namespace varn {

struct SVC_HASH_ENT {
  std::int32_t index;    // the entry's own number
  std::uint32_t bucket;  // the chain it hangs in
  std::int32_t prev;     // kNoEntry for the first of the chain
  std::int32_t next;     // kNoEntry for the last
  std::uint8_t collector1[32];
  char svc_id[16];  // blank-padded, never zero-ended
  std::uint8_t collector2[4];
  std::uint8_t call_trc_depth;
  std::uint8_t collector3[3];
  std::uint64_t call_trc_limit;  // microseconds, as the two below
  std::uint64_t dbio_trc_limit;
  std::uint64_t sql_trc_limit;
  std::uint8_t collector4[4];
  std::uint8_t trace_flags;  // record kinds traced for this service, see kRecordKinds
  std::uint8_t collector5[3];
};
VARN_PIN(SVC_HASH_ENT, index, 0);
VARN_PIN(SVC_HASH_ENT, bucket, 4);
VARN_PIN(SVC_HASH_ENT, prev, 8);
VARN_PIN(SVC_HASH_ENT, next, 12);
VARN_PIN(SVC_HASH_ENT, svc_id, 48);
VARN_PIN(SVC_HASH_ENT, call_trc_depth, 68);
VARN_PIN(SVC_HASH_ENT, call_trc_limit, 72);
VARN_PIN(SVC_HASH_ENT, dbio_trc_limit, 80);
VARN_PIN(SVC_HASH_ENT, sql_trc_limit, 88);
VARN_PIN(SVC_HASH_ENT, trace_flags, 100);
static_assert(sizeof(SVC_HASH_ENT) == 104);

struct SVC_HASH_TBL {
  std::uint32_t used;  // services in the table
  std::int32_t heads[kTableChains];
  std::uint8_t padding[4];
  SVC_HASH_ENT entries[kTableEntries];
  TableStack free_stack;
  TableStack used_stack;
};
VARN_PIN(SVC_HASH_TBL, heads, 4);
VARN_PIN(SVC_HASH_TBL, entries, 262'152);
VARN_PIN(SVC_HASH_TBL, free_stack, 1'302'152);
VARN_PIN(SVC_HASH_TBL, used_stack, 1'342'156);
static_assert(sizeof(SVC_HASH_TBL) == 1'382'160);
static_assert(std::is_standard_layout_v<SVC_HASH_TBL>);

}  // namespace varn
