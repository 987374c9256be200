#include "collector/objects.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>

#include "hash/get_ptrc_hash.h"
#include "hash/get_svc_hash.h"
#include "layout/config_keys.h"
#include "layout/record.h"
#include "util/msgq.h"
#include "util/sem.h"
#include "util/shared_word.h"

namespace varn {
namespace {

// Room for a burst of one busy thread while the collector rests for its longest, four times over.
constexpr unsigned long kWishedRecords = 4096;
constexpr int kLockMs = 2000;
constexpr int kGrantAll = 0666;

std::string reason() { return std::strerror(errno); }

long kernel_limit(const char* name) {
  long value = -1;
  std::ifstream(std::string("/proc/sys/kernel/") + name) >> value;
  return value;
}

struct SegmentRow {
  const ConfigKey& key;
  std::int64_t CollectorSettings::*shmkey;
  std::size_t size;
  int flags;  // beside permissions
  int SharedObjects::*shmid;
};
// The process-thread table is mostly zero pages that nobody will ever touch: none are reserved.
constexpr SegmentRow kSegments[] = {
    {kQueInfoShmKey, &CollectorSettings::que_info_shmkey, sizeof(TRAN_LOGF_QUE_INFO), 0,
     &SharedObjects::que_info_shmid},
    {kSvcHashTblShmKey, &CollectorSettings::svc_hash_tbl_shmkey, sizeof(SVC_HASH_TBL), 0,
     &SharedObjects::svc_hash_shmid},
    {kPtrcHashTblShmKey, &CollectorSettings::ptrc_hash_tbl_shmkey, sizeof(PTRC_HASH_TBL),
     SHM_NORESERVE, &SharedObjects::ptrc_hash_shmid},
};

struct SemaphoreRow {
  const ConfigKey& key;
  std::int64_t CollectorSettings::*semkey;
  int SharedObjects::*semid;
};
constexpr SemaphoreRow kSemaphores[] = {
    {kSvcHashTblSemKey, &CollectorSettings::svc_hash_tbl_semkey, &SharedObjects::svc_hash_semid},
    {kPtrcHashTblSemKey, &CollectorSettings::ptrc_hash_tbl_semkey, &SharedObjects::ptrc_hash_semid},
};

std::string name_of(const ConfigKey& key, std::int64_t number) {
  return std::string(key.key) + " " + std::to_string(number);
}
std::string name_of_queue(const CollectorSettings& settings, int queue) {
  return "queue " + std::to_string(queue) + " (" +
         name_of(kTranLogfMsgqKey, settings.tran_logf_msgqkey) + " + " + std::to_string(queue) +
         ")";
}

enum class Found { kThere, kMissing, kForeign };

// No permissions are asked for here: an object is used as far as it grants.
Found find_segment(const SegmentRow& row, key_t key, int& shmid, std::string& error) {
  const std::string name = name_of(row.key, key);
  shmid = shmget(key, 0, 0);
  if (shmid < 0) {
    if (errno == ENOENT) return Found::kMissing;
    error = name + ": the segment cannot be looked up: " + reason();
    return Found::kForeign;
  }
  shmid_ds about = {};
  if (shmctl(shmid, IPC_STAT, &about) < 0) {
    error = name + ": the segment cannot be examined: " + reason();
    return Found::kForeign;
  }
  if (about.shm_segsz == row.size) return Found::kThere;
  error = name + ": a segment of " + std::to_string(about.shm_segsz) + " bytes is there, not of " +
          std::to_string(row.size) + "; it belongs to something else and is left alone";
  return Found::kForeign;
}

Found find_semaphore(const SemaphoreRow& row, key_t key, int& semid, std::string& error) {
  const std::string name = name_of(row.key, key);
  semid = semget(key, 0, 0);
  if (semid < 0) {
    if (errno == ENOENT) return Found::kMissing;
    error = name + ": the semaphore cannot be looked up: " + reason();
    return Found::kForeign;
  }
  semid_ds about = {};
  if (semctl(semid, 0, IPC_STAT, &about) < 0) {
    error = name + ": the semaphore cannot be examined: " + reason();
    return Found::kForeign;
  }
  if (about.sem_nsems == 1) return Found::kThere;
  error = name + ": a set of " + std::to_string(about.sem_nsems) +
          " semaphores is there, not of 1; it belongs to something else and is left alone";
  return Found::kForeign;
}

Found find_queue(const std::string& name, key_t key, int& msqid, std::string& error) {
  msqid = msgget(key, 0);
  if (msqid >= 0) return Found::kThere;
  if (errno == ENOENT) return Found::kMissing;
  error = name + " cannot be looked up: " + reason();
  return Found::kForeign;
}

// What one call makes, removed again unless the call succeeds.
struct Undo {
  std::vector<std::function<void()>> steps;
  int made = 0;

  template <typename Step>
  void on_failure(Step step) {
    steps.emplace_back(step);
    ++made;
  }
  void forget() { steps.clear(); }
  ~Undo() {
    for (auto step = steps.rbegin(); step != steps.rend(); ++step) (*step)();
  }
};

// Two creators at work on one file would each adopt what the other may take back.
struct OneAtATime {
  int fd;
  explicit OneAtATime(const std::string& path) : fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    while (fd >= 0 && flock(fd, LOCK_EX) < 0 && errno == EINTR) {
    }
  }
  ~OneAtATime() {
    if (fd >= 0) close(fd);
  }
  OneAtATime(const OneAtATime&) = delete;
  OneAtATime& operator=(const OneAtATime&) = delete;
};

// Only private keys are new: under them an object that is there is somebody else's.
enum class Keys { kGiven, kNew };

constexpr char kKeyInUse[] = "the key is in use";

std::string why_no_segment() {
  const int fault = errno;
  std::string text = reason();
  if (fault == EINVAL)
    text += "; segments are limited to " + std::to_string(kernel_limit("shmmax")) +
            " bytes: sysctl -w kernel.shmmax=" + std::to_string(sizeof(PTRC_HASH_TBL));
  if (fault == ENOSPC)
    text += "; raise kernel.shmmni (now " + std::to_string(kernel_limit("shmmni")) +
            ") or kernel.shmall (now " + std::to_string(kernel_limit("shmall")) + " pages)";
  return text;
}

bool make_segment(const SegmentRow& row, key_t key, Keys keys, int& shmid, Undo& undo,
                  std::string& error) {
  const Found found = find_segment(row, key, shmid, error);
  if (found == Found::kForeign) return false;
  if (found == Found::kThere) {
    if (keys == Keys::kGiven) return true;
    error = kKeyInUse;
    return false;
  }
  shmid = shmget(key, row.size, IPC_CREAT | IPC_EXCL | kGrantAll | row.flags);
  if (shmid < 0) {
    error = name_of(row.key, key) + ": no segment of " + std::to_string(row.size) +
            " bytes could be made: " + why_no_segment();
    return false;
  }
  undo.on_failure([id = shmid] { shmctl(id, IPC_RMID, nullptr); });
  return true;
}

bool make_semaphore(const SemaphoreRow& row, key_t key, Keys keys, int& semid, Undo& undo,
                    std::string& error) {
  const Found found = find_semaphore(row, key, semid, error);
  if (found == Found::kForeign) return false;
  if (found == Found::kThere && keys == Keys::kNew) {
    error = kKeyInUse;
    return false;
  }
  if (found == Found::kMissing) {
    semid = semget(key, 1, IPC_CREAT | IPC_EXCL | kGrantAll);
    if (semid < 0) {
      error = name_of(row.key, key) + ": no semaphore could be made: " + reason();
      return false;
    }
    undo.on_failure([id = semid] { semctl(id, 0, IPC_RMID); });
  }
  // A semaphore at 0 that was never operated on is not held: whoever made it did not get further.
  semid_ds about = {};
  if (semctl(semid, 0, IPC_STAT, &about) == 0 && about.sem_otime == 0 &&
      semctl(semid, 0, GETVAL) == 0 && init_sem_val(semid, 0, 1) < 0) {
    error = name_of(row.key, key) + ": the semaphore cannot be set free: " + reason();
    return false;
  }
  return true;
}

// As much as is wished for; else, where that takes a privilege, as much as everybody may.
void widen_queue(int msqid) {
  msqid_ds about = {};
  if (msgctl(msqid, IPC_STAT, &about) < 0) return;
  const unsigned long wished = kWishedRecords * kRecordTextSize;
  const unsigned long allowed = static_cast<unsigned long>(std::max(0L, kernel_limit("msgmnb")));
  for (const unsigned long bytes : {wished, std::min(wished, allowed)}) {
    if (about.msg_qbytes >= bytes) return;
    msqid_ds wider = about;
    wider.msg_qbytes = bytes;
    if (msgctl(msqid, IPC_SET, &wider) == 0) return;
  }
}

bool make_queue(const CollectorSettings& settings, int queue, Keys keys, int& msqid, Undo& undo,
                std::string& error) {
  const auto key = static_cast<key_t>(settings.tran_logf_msgqkey + queue);
  const std::string name = name_of_queue(settings, queue);
  const Found found = find_queue(name, key, msqid, error);
  if (found == Found::kForeign) return false;
  if (found == Found::kThere && keys == Keys::kNew) {
    error = kKeyInUse;
    return false;
  }
  if (found == Found::kMissing) {
    msqid = msgget(key, IPC_CREAT | IPC_EXCL | kGrantAll);
    if (msqid < 0) {
      error = name + " could not be made: " + reason();
      if (errno == ENOSPC)
        error += "; raise kernel.msgmni (now " + std::to_string(kernel_limit("msgmni")) + ")";
      return false;
    }
    undo.on_failure([id = msqid] { msgctl(id, IPC_RMID, nullptr); });
  }
  widen_queue(msqid);
  return true;
}

template <typename T>
bool attach(const ConfigKey& key, int shmid, T*& place, std::string& error) {
  void* const address = shmat(shmid, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) {
    error = std::string(key.key) + ": the segment cannot be attached: " + reason();
    return false;
  }
  place = static_cast<T*>(address);
  return true;
}

bool attach_all(SharedObjects& objects, std::string& error) {
  return attach(kQueInfoShmKey, objects.que_info_shmid, objects.que_info, error) &&
         attach(kSvcHashTblShmKey, objects.svc_hash_shmid, objects.svc_hash_tbl, error) &&
         attach(kPtrcHashTblShmKey, objects.ptrc_hash_shmid, objects.ptrc_hash_tbl, error);
}

// Every entry number lies on one of a filled table's stacks. With none on the used stack, and fewer
// than all on the free one, the table is as the kernel made it, or its creator died over it.
template <typename Table>
bool never_filled(const Table& table) {
  return load(table.used) == 0 && load(table.used_stack.count) == 0 &&
         load(table.free_stack.count) < static_cast<std::uint32_t>(kTableEntries);
}

template <typename Table>
bool fill_if_new(const ConfigKey& key, int semid, Table& table, void (*fill)(Table&),
                 std::string& error) {
  if (sem_lock_within(semid, 0, SEM_UNDO, kLockMs) < 0) {
    error = std::string(key.key) + ": the semaphore could not be taken: " + reason();
    if (errno == EAGAIN)
      error += "; process " + std::to_string(semctl(semid, 0, GETPID)) + " was the last to use it";
    return false;
  }
  if (never_filled(table)) fill(table);
  sem_unlock(semid, 0, SEM_UNDO);
  return true;
}

void write_tuning(TRAN_LOGF_QUE_INFO& info, const CollectorSettings& settings) {
  store(info.que_cnt, static_cast<std::int32_t>(settings.que_cnt));
  store(info.que_mask, static_cast<std::uint32_t>(settings.que_cnt - 1));
  store(info.log_flag_set, settings.log_flag_set);
  store(info.tong_log_flag, settings.tong_log_flag == 1 ? '1' : '0');
  for (std::size_t i = 0; i < std::size(info.fst_err_rc_set); ++i)
    store(info.fst_err_rc_set[i], settings.fst_err_rc_set[i]);
  store(info.call_trc_depth, static_cast<std::uint32_t>(settings.call_trc_depth));
  store(info.call_trc_limit, static_cast<std::uint64_t>(settings.call_trc_limit));
  store(info.dbio_trc_limit, static_cast<std::uint64_t>(settings.dbio_trc_limit));
  store(info.sql_trc_limit, static_cast<std::uint64_t>(settings.sql_trc_limit));
  store(info.svc_filtering, static_cast<std::uint8_t>(settings.svc_filtering));
  store_release(info.magic_code, kMagicReady);
}

bool make_all(const CollectorSettings& settings, Keys keys, SharedObjects& out, Undo& undo,
              std::string& error) {
  for (const SemaphoreRow& row : kSemaphores)
    if (!make_semaphore(row, static_cast<key_t>(settings.*row.semkey), keys, out.*row.semid, undo,
                        error))
      return false;
  for (const SegmentRow& row : kSegments)
    if (!make_segment(row, static_cast<key_t>(settings.*row.shmkey), keys, out.*row.shmid, undo,
                      error))
      return false;
  out.msgq_ids.assign(static_cast<std::size_t>(settings.max_que_cnt), -1);
  for (std::size_t i = 0; i < out.msgq_ids.size(); ++i)
    if (!make_queue(settings, static_cast<int>(i), keys, out.msgq_ids[i], undo, error))
      return false;

  if (!attach_all(out, error) ||
      !fill_if_new(kSvcHashTblSemKey, out.svc_hash_semid, *out.svc_hash_tbl, &init_svc_hash_tbl,
                   error) ||
      !fill_if_new(kPtrcHashTblSemKey, out.ptrc_hash_semid, *out.ptrc_hash_tbl, &init_ptrc_hash_tbl,
                   error))
    return false;
  write_tuning(*out.que_info, settings);
  return true;
}

bool make_or_undo(const CollectorSettings& settings, Keys keys, SharedObjects& out,
                  std::string& error) {
  out = {};
  Undo undo;
  if (!make_all(settings, keys, out, undo, error)) {
    detach_objects(out);
    return false;
  }
  out.created = undo.made;
  undo.forget();
  return true;
}

}  // namespace

bool create_objects(const CollectorSettings& settings, SharedObjects& out, std::string& error) {
  const OneAtATime lock(settings.path);
  return make_or_undo(settings, Keys::kGiven, out, error);
}

bool create_private_objects(CollectorSettings& settings, SharedObjects& out, std::string& error) {
  constexpr int kMostTries = 100;
  std::random_device random;
  std::uniform_int_distribution<std::int32_t> any_base(0x10000000, 0x7ffffff0 - kMaxQueues);
  for (int i = 0; i < kMostTries; ++i) {
    const std::int32_t base = any_base(random);
    settings.que_info_shmkey = base;
    settings.svc_hash_tbl_shmkey = base + 1;
    settings.ptrc_hash_tbl_shmkey = base + 2;
    settings.svc_hash_tbl_semkey = base + 1;
    settings.ptrc_hash_tbl_semkey = base + 2;
    settings.tran_logf_msgqkey = base;
    if (make_or_undo(settings, Keys::kNew, out, error)) return true;
    if (error != kKeyInUse) return false;
  }
  error = "no unused keys were found for the shared objects";
  return false;
}

bool open_objects(const CollectorSettings& settings, SharedObjects& out, std::string& error) {
  out = {};
  const auto is_there = [&error](Found found, const std::string& name) {
    if (found == Found::kMissing) error = name + ": there is no such object";
    return found == Found::kThere;
  };
  for (const SemaphoreRow& row : kSemaphores) {
    const auto key = static_cast<key_t>(settings.*row.semkey);
    if (!is_there(find_semaphore(row, key, out.*row.semid, error), name_of(row.key, key)))
      return false;
  }
  for (const SegmentRow& row : kSegments) {
    const auto key = static_cast<key_t>(settings.*row.shmkey);
    if (!is_there(find_segment(row, key, out.*row.shmid, error), name_of(row.key, key)))
      return false;
  }
  out.msgq_ids.assign(static_cast<std::size_t>(settings.max_que_cnt), -1);
  for (std::size_t i = 0; i < out.msgq_ids.size(); ++i) {
    const int queue = static_cast<int>(i);
    const std::string name = name_of_queue(settings, queue);
    const auto key = static_cast<key_t>(settings.tran_logf_msgqkey + queue);
    if (!is_there(find_queue(name, key, out.msgq_ids[i], error), name)) return false;
  }
  if (attach_all(out, error)) return true;
  detach_objects(out);
  return false;
}

void detach_objects(SharedObjects& objects) {
  if (objects.que_info != nullptr) shmdt(objects.que_info);
  if (objects.svc_hash_tbl != nullptr) shmdt(objects.svc_hash_tbl);
  if (objects.ptrc_hash_tbl != nullptr) shmdt(objects.ptrc_hash_tbl);
  objects.que_info = nullptr;
  objects.svc_hash_tbl = nullptr;
  objects.ptrc_hash_tbl = nullptr;
}

bool remove_objects(const CollectorSettings& settings, Removed& removed, std::string& error) {
  const OneAtATime lock(settings.path);
  removed = {};
  error.clear();
  const auto note = [&error](const std::string& fault) {
    if (!error.empty()) error += '\n';
    error += fault;
  };
  const auto settle = [&](Found found, const std::string& fault, const std::string& name,
                          auto&& remove) {
    if (found == Found::kForeign) note(fault);
    if (found != Found::kThere) return;
    if (remove() == 0) {
      ++removed.objects;
    } else if (errno != EINVAL && errno != EIDRM) {  // else somebody was faster
      note(name + " could not be removed: " + reason());
    }
  };
  // The tuning values go first: a process that starts meanwhile finds nothing rather than half.
  int id = -1;
  std::string fault;
  for (const SegmentRow& row : kSegments) {
    const auto key = static_cast<key_t>(settings.*row.shmkey);
    const Found found = find_segment(row, key, id, fault);
    settle(found, fault, name_of(row.key, key), [&] { return shmctl(id, IPC_RMID, nullptr); });
  }
  for (const SemaphoreRow& row : kSemaphores) {
    const auto key = static_cast<key_t>(settings.*row.semkey);
    const Found found = find_semaphore(row, key, id, fault);
    settle(found, fault, name_of(row.key, key), [&] { return semctl(id, 0, IPC_RMID); });
  }
  for (int queue = 0; queue < settings.max_que_cnt; ++queue) {
    const std::string name = name_of_queue(settings, queue);
    const Found found =
        find_queue(name, static_cast<key_t>(settings.tran_logf_msgqkey + queue), id, fault);
    settle(found, fault, name, [&] {
      const long records = get_msgq_num(id);
      const int rc = msgctl(id, IPC_RMID, nullptr);
      if (rc == 0) removed.records += std::max(0L, records);
      return rc;
    });
  }
  return error.empty();
}

long queue_records(int msqid) {
  msqid_ds about = {};
  if (msgctl(msqid, IPC_STAT, &about) < 0) return -1;
  return static_cast<long>(about.msg_qbytes / kRecordTextSize);
}

std::vector<std::string> queue_notes(const SharedObjects& objects) {
  std::vector<std::string> notes;
  long least = static_cast<long>(kWishedRecords);
  for (const int msqid : objects.msgq_ids) {
    const long records = queue_records(msqid);
    if (records >= 0) least = std::min(least, records);
  }
  if (least < static_cast<long>(kWishedRecords)) {
    notes.push_back("a queue holds only " + std::to_string(least) +
                    " records; what a burst sends beyond that is lost and counted as failed");
    notes.push_back("for " + std::to_string(kWishedRecords) + " records: sysctl -w kernel.msgmnb=" +
                    std::to_string(kWishedRecords * kRecordTextSize) +
                    ", then make the queues again");
  }
  const long msgmax = kernel_limit("msgmax");
  if (msgmax >= 0 && msgmax < static_cast<long>(kRecordTextSize)) {
    notes.push_back("kernel.msgmax is " + std::to_string(msgmax) + "; a record of " +
                    std::to_string(kRecordTextSize) +
                    " bytes cannot be sent: sysctl -w kernel.msgmax=8192");
  }
  return notes;
}

}  // namespace varn
