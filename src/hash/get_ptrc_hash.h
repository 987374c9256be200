// Finding and creating the entries of threads in the process-thread table.
#pragma once

#include <cstdint>

#include "layout/ptrc_hash_tbl.h"

namespace varn {

// Who asks for an entry: a thread of a process, and what its entry says of it at creation.
struct EntryOwner {
  std::int32_t pid;
  std::uint64_t tid;
  std::int32_t bucket;          // of the thread's context
  std::int32_t bucket_threads;  // contexts in use there, for the log
  const char* proc_nm;          // zero-ended, as the three below
  const char* cont_nm;
  const char* db_user;
  const char* db_sid;
};

enum class EntryResult {
  kFound,    // or created
  kFull,     // no free entry
  kDamaged,  // the table holds values that cannot be; the entry is not to be had
  kOverlong  // a chain has more entries than the table: the caller stops tracing on the host
};

// The entry of the owner's process and thread, created when there is none. To be called with the
// table's semaphore held.
EntryResult get_ptrc_hash(PTRC_HASH_TBL& table, const EntryOwner& owner, PTRC_HASH_ENT** out);

// Fills a new segment, all zero as the kernel hands it out: its 600 MB of entries stay untouched,
// so that they take no memory until they are used.
void init_ptrc_hash_tbl(PTRC_HASH_TBL& table);

}  // namespace varn
