// What ended threads and processes leave behind in the process-thread table.
#pragma once

#include "layout/ptrc_hash_tbl.h"

namespace varn {

// Takes back the entries that traced processes gave up and those of processes that are gone: they
// are unlinked and free for others. Processes are told by their numbers, so the caller has to be in
// their PID namespace. How many were taken; -1 when the semaphore could not be had for a while,
// which is no fault: the next time finds them again.
int take_entries_back(PTRC_HASH_TBL& table, int semid);

}  // namespace varn
