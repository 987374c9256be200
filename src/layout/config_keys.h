// Every key of the configuration file, in the order in which the sample file lists them: the agent,
// the creator of the shared objects and the sample all take section and key from here.
#pragma once

#include <array>
#include <string_view>

namespace varn {

struct ConfigKey {
  const char* section;
  const char* key;
  const char* sample;        // value in the sample file
  const char* comment;       // what it means, in a line or more
  bool is_optional = false;  // a file may lack it, and then means the sample
};

// clang-format off
inline constexpr ConfigKey kLogHome{"COMMON", "LOG_HOME", "log",
    "Directory of the agent log; a relative one lies under TRAN_AGT_HOME.\n"
    "Lines go to LOG_HOME/proc/libvarn/libvarn-YYYY-MM-DD-log."};
inline constexpr ConfigKey kTongLogHome{"COMMON", "TONG_LOG_HOME", "/tmp",
    "Directory of the whole-telegram log, from the root."};
inline constexpr ConfigKey kLogInterface{"TRAN_LOGF", "LOG_INTERFACE", "00",
    "Two characters that name the interface of this system."};
inline constexpr ConfigKey kTrSection{"TRAN_LOGF", "TR_SECTION", "0",
    "One character that names the section of this system."};
inline constexpr ConfigKey kIdleThreadRelease{"TRAN_LOGF", "IDLE_THREAD_RELEASE", "300 1",
    "Two numbers kept for the collector; the agent only stores them."};
inline constexpr ConfigKey kInfiniteLoopBaseCnt{"TRAN_LOGF", "INFINITE_LOOP_BASE_CNT", "10000",
    "Business and database calls of one service beyond which event 1300 warns."};
inline constexpr ConfigKey kMaxQueCnt{"TRAN_LOGF", "MAX_QUE_CNT", "4",
    "Trace queues that a process opens, 1 to 16; at least QUE_CNT."};
inline constexpr ConfigKey kWriteQueIdxGidRng{"TRAN_LOGF", "WRITE_QUE_IDX_GID_RNG", "0 30",
    "Part of the GID whose hash chooses the queue: first character (from 0) and count."};
inline constexpr ConfigKey kQueCnt{"TRAN_LOGF", "QUE_CNT", "4",
    "Trace queues in use: 1, 2, 4, 8 or 16."};
inline constexpr ConfigKey kTranLogFlagSet{"TRAN_LOGF", "TRAN_LOG_FLAG_SET", "SEVBCIXQ",
    "Record kinds switched on: S service start and end, E errors, V events, B database calls,\n"
    "C business calls, I information, X extended information, Q SQL."};
inline constexpr ConfigKey kTongLogFlag{"TRAN_LOGF", "TONG_LOG_FLAG", "0",
    "1: whole telegrams are logged in TONG_LOG_HOME; 0, or no such line: they are not.", true};
inline constexpr ConfigKey kFstErrRcSet{"TRAN_LOGF", "FST_ERR_RC_SET", "128,1",
    "Up to 16 values CODE,CLASS. A call that returns a negative code of class 1 is recorded\n"
    "however short it was, of class 2 together with its callers. 128 stands for all codes."};
inline constexpr ConfigKey kSvcFiltering{"TRAN_LOGF", "SVC_FILTERING", "0",
    "0: trace all services; 1: as the service table says where it lists one; 2: only listed ones."};
inline constexpr ConfigKey kCallTrcDepth{"TRAN_LOGF", "CALL_TRC_DEPTH", "10",
    "Depth to which the calls of a service are traced, 0 to 127."};
inline constexpr ConfigKey kCallTrcLimit{"TRAN_LOGF", "CALL_TRC_LIMIT", "0",
    "Business calls shorter than this many microseconds are not recorded."};
inline constexpr ConfigKey kDbioTrcLimit{"TRAN_LOGF", "DBIO_TRC_LIMIT", "0",
    "Database calls shorter than this many microseconds are not recorded."};
inline constexpr ConfigKey kSqlTrcLimit{"TRAN_LOGF", "SQL_TRC_LIMIT", "0",
    "SQL statements shorter than this many microseconds are not recorded."};
inline constexpr ConfigKey kQueInfoShmKey{"IPC_SHARED_MEMORY", "TRAN_LOGF_QUE_INFO_SHMKEY", "717001",
    "Key of the segment of tuning values."};
inline constexpr ConfigKey kSvcHashTblShmKey{"IPC_SHARED_MEMORY", "SVC_HASH_TBL_SHMKEY", "717002",
    "Key of the service table."};
inline constexpr ConfigKey kPtrcHashTblShmKey{"IPC_SHARED_MEMORY", "PTRC_HASH_TBL_SHMKEY", "717003",
    "Key of the process-thread table."};
inline constexpr ConfigKey kSvcHashTblSemKey{"IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY", "717002",
    "Key of the service table's semaphore."};
inline constexpr ConfigKey kPtrcHashTblSemKey{"IPC_SEMAPHORE", "PTRC_HASH_TBL_SEMKEY", "717003",
    "Key of the process-thread table's semaphore."};
inline constexpr ConfigKey kTranLogfMsgqKey{"IPC_MESSAGE_QUE", "TRAN_LOGF_MSGQKEY", "717100",
    "Key of trace queue 0; queue N has this key plus N."};
inline constexpr ConfigKey kDbioFunc{"DATA_SIGNATURE", "DBIO_FUNC", "0 db",
    "What marks a function as a database call: a position in its name (from 0; -1: none is)\n"
    "and the characters that stand there, at most 7 of them compared."};
inline constexpr ConfigKey kDefaultTimeoutSec{"SERVICE_HASH", "DEFAULT_TIMEOUT_SEC", "60",
    "Seconds after which an open service is taken as left behind by the next start."};
// clang-format on

inline constexpr std::array kConfigKeys{
    kLogHome,           kTongLogHome,       kLogInterface,
    kTrSection,         kIdleThreadRelease, kInfiniteLoopBaseCnt,
    kMaxQueCnt,         kWriteQueIdxGidRng, kQueCnt,
    kTranLogFlagSet,    kTongLogFlag,       kFstErrRcSet,
    kSvcFiltering,      kCallTrcDepth,      kCallTrcLimit,
    kDbioTrcLimit,      kSqlTrcLimit,       kQueInfoShmKey,
    kSvcHashTblShmKey,  kPtrcHashTblShmKey, kSvcHashTblSemKey,
    kPtrcHashTblSemKey, kTranLogfMsgqKey,   kDbioFunc,
    kDefaultTimeoutSec,
};

}  // namespace varn
