// The objects that traced processes attach to: made, adopted, found again and removed.
#pragma once

#include <string>
#include <vector>

#include "collector/settings.h"
#include "layout/ptrc_hash_tbl.h"
#include "layout/que_info.h"
#include "layout/svc_hash_tbl.h"

namespace varn {

// Ids and attached addresses. Segments stay attached until detach_objects().
struct SharedObjects {
  int que_info_shmid = -1;
  int svc_hash_shmid = -1;
  int ptrc_hash_shmid = -1;
  int svc_hash_semid = -1;
  int ptrc_hash_semid = -1;
  std::vector<int> msgq_ids;  // MAX_QUE_CNT of them; index: queue number
  TRAN_LOGF_QUE_INFO* que_info = nullptr;
  SVC_HASH_TBL* svc_hash_tbl = nullptr;
  PTRC_HASH_TBL* ptrc_hash_tbl = nullptr;
  int created = 0;  // how many of them the call that filled this made; the others were there
};

// Makes what is missing (permissions 0666), adopts what is there, gives the queues the room they
// may have, writes the tuning values and marks them ready last. A table is filled only when it is
// new, or when its creator died before it was done. Counters and entries of adopted objects stay.
// An object that is not what its key says, a segment of another size say, is not touched: false,
// with the reason in `error`, and what this call had made is removed again.
bool create_objects(const CollectorSettings& settings, SharedObjects& out, std::string& error);

// As create_objects, under keys that nobody used before; they are written into `settings`.
bool create_private_objects(CollectorSettings& settings, SharedObjects& out, std::string& error);

// Attaches what create_objects() made. False when anything is missing or is something else.
bool open_objects(const CollectorSettings& settings, SharedObjects& out, std::string& error);

void detach_objects(SharedObjects& objects);

struct Removed {
  int objects = 0;
  long records = 0;  // that were on the queues, and are lost with them
};

// Removes what exists under the settings' keys. Foreign objects are left alone: false then, and
// when something may not be removed.
bool remove_objects(const CollectorSettings& settings, Removed& removed, std::string& error);

// How many records the queue holds when nobody reads; -1 when it is gone.
long queue_records(int msqid);

// What the operator should know of the room on the queues, a line each: none when they hold as many
// records as create_objects() wishes for and a record fits into a message.
std::vector<std::string> queue_notes(const SharedObjects& objects);

}  // namespace varn
