// Looking services up in the service table.
#pragma once

#include "layout/svc_hash_tbl.h"

namespace varn {

// The entry of a 16-byte, blank-padded service id, or null. Takes no semaphore: the collector may
// change a chain meanwhile, so at most ten entries of it are compared.
const SVC_HASH_ENT* get_svc_hash(const SVC_HASH_TBL& table, const char* svc_id);

// Fills a new segment, all zero as the kernel hands it out.
void init_svc_hash_tbl(SVC_HASH_TBL& table);

}  // namespace varn
