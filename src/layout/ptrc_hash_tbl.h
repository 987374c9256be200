// The process-thread table: what every traced thread of the host is doing, for the collector to
// look at while it happens. Entries are created under the table's semaphore; afterwards a thread
// writes its own entry without it, so that readers must tolerate a half-updated one.
#pragma once

#include <cstdint>
#include <type_traits>

#include "layout/index_stack.h"
#include "layout/pin.h"
#include "layout/stamp.h"
#include "varn/tran.h"

namespace varn {

inline constexpr int kMaxSvcDepth = 10;   // nested services of a thread
inline constexpr int kMaxCallDepth = 51;  // open calls of a thread
inline constexpr int kSqlEntries = 5;     // pending SQL statements of a database call
inline constexpr std::int64_t kNoSqlcode = 9'999;

// One open call of a thread's call stack.
struct CallEntry {
  TimeVal start_tv;
  TimeVal end_tv;
  char type;  // 'C' business call, 'B' database call
  char padding1[3];
  std::int32_t seq;  // the call's number in its service
  char func_nm[71];  // a text of full width ends at the zero byte behind it, as the two below
  char call_at[71];
  char call_src[102];
  std::int32_t line;
  tran_call_rc result;
  std::int32_t force_rec;  // 1: recorded whatever its elapsed time
  char padding2[4];
  std::int64_t lvl_elapsed_us;  // finished calls at this level since their parent started
  std::int64_t lvl_dbio_us;     // database time at this level and below
};
VARN_PIN(CallEntry, end_tv, 16);
VARN_PIN(CallEntry, type, 32);
VARN_PIN(CallEntry, seq, 36);
VARN_PIN(CallEntry, func_nm, 40);
VARN_PIN(CallEntry, call_at, 111);
VARN_PIN(CallEntry, call_src, 182);
VARN_PIN(CallEntry, line, 284);
VARN_PIN(CallEntry, result, 288);
VARN_PIN(CallEntry, force_rec, 296);
VARN_PIN(CallEntry, lvl_elapsed_us, 304);
VARN_PIN(CallEntry, lvl_dbio_us, 312);
static_assert(sizeof(CallEntry) == 320);

inline constexpr int kMaxSqlText = 8'192;

// One pending SQL statement of a database call.
struct SqlEntry {
  std::uint8_t reserved[152];
  std::int16_t stmt_len;
  std::int16_t stmt_kind;
  char padding1[4];
  TimeVal stmt_start_tv;
  TimeVal stmt_end_tv;  // of the last execution
  char stmt_func_nm[71];
  char stmt_text[kMaxSqlText + 1];
  std::uint32_t stmt_exec_cnt;  // executions in a row
  char padding2[4];
};
VARN_PIN(SqlEntry, stmt_len, 152);
VARN_PIN(SqlEntry, stmt_kind, 154);
VARN_PIN(SqlEntry, stmt_start_tv, 160);
VARN_PIN(SqlEntry, stmt_end_tv, 176);
VARN_PIN(SqlEntry, stmt_func_nm, 192);
VARN_PIN(SqlEntry, stmt_text, 263);
VARN_PIN(SqlEntry, stmt_exec_cnt, 8'456);
static_assert(sizeof(SqlEntry) == 8'464);

// One open service level, as other processes see it.
struct EntryLevel {
  char gid[32];
  char blank1;
  char svc_id[16];
  char unused[14];
};
VARN_PIN(EntryLevel, svc_id, 33);
static_assert(sizeof(EntryLevel) == 63);

enum EntStatus : std::uint8_t {
  kEntInUse = 1,
  kEntReleaseRequested = 2,  // by the collector
  kEntCleared = 3,           // by the traced process, when it gave the thread's context up
};

enum SnapshotState : std::uint8_t {
  kSnapshotNone = 0,
  kSnapshotArmed = 1,  // by the collector, for snapshot_tx_cd
  kSnapshotRunning = 2,
  kSnapshotFinished = 3,
};

struct PTRC_HASH_ENT {
  std::int32_t pidx;     // the entry's own number
  std::uint32_t bucket;  // the chain it hangs in
  std::int32_t prev;     // kNoEntry for the first of the chain
  std::int32_t next;     // kNoEntry for the last
  // From here on everything is zeroed when the entry is created.
  char main_gid[32];  // of the outermost service, as the two below
  char blank1;
  char main_svc_id[16];
  char blank2;
  char main_recv_svc_cd[12];
  char blank3;
  EntryLevel entry_stack[kMaxSvcDepth];
  std::int8_t entry_depth;
  char chnl_class;       // 'C' linked channel, 'O' other
  char prev_tran_state;  // tran_state when the process let the entry go
  char created;          // '1'
  std::uint8_t err_rc_seen;
  std::uint8_t svc_timeout_seen;
  std::uint8_t in_dbio;
  std::uint8_t unused1[2];
  char ent_proc_nm[31];
  char ent_cont_nm[31];
  char pid_txt[8];  // zero-filled digits, as the two below
  char zero1;
  char tid_txt[15];
  char zero2;
  char idx_txt[5];
  char zero3[2];
  std::int32_t ent_pid;
  std::uint64_t ent_tid;
  std::uint8_t snapshot_state;  // SnapshotState
  char snapshot_tx_cd[15];      // zero-ended
  std::int64_t snapshot_aux;
  TimeVal preset_time;     // a start or end time set ahead; seconds 0: none
  TimeVal svc_start_time;  // of the outermost service, as the next
  TimeVal svc_end_time;
  char tran_state;          // 'd' created, 'f' started, 'g' ended, 'h' let go by TRAN_DONE
  std::uint8_t ent_status;  // EntStatus
  std::int8_t call_top;     // open calls
  std::int8_t call_last_top;
  std::int8_t trc_depth;  // calls deeper than this are not traced
  std::uint8_t unused2[3];
  std::int32_t call_nest;
  std::int32_t call_cnt;
  std::uint8_t que_idx;  // queue of the thread's last record
  std::uint8_t unused3[2];
  std::int8_t dbio_rec_off;  // 0, 'y' or 'd': why database calls are not recorded
  std::uint8_t unused4[4];
  std::int64_t call_limit_us;  // shorter calls are not recorded, as the two below
  std::int64_t dbio_limit_us;
  std::int64_t sql_limit_us;
  CallEntry call_stack[kMaxCallDepth];
  std::int64_t dbio_elapsed_total;  // microseconds of database calls in the service
  std::int32_t sql_cnt;             // pending SQL entries
  std::uint8_t unused5[4];
  SqlEntry sql_ent[kSqlEntries];
  char sql_id[200];
  char blank4;
  std::uint8_t unused6[135];
  std::int64_t sqlcode;  // kNoSqlcode: none in this call
  char sql_errm[100];    // message of the last failed statement
  std::uint8_t unused7[4];
  std::int32_t cur_fetch_rows;
  std::int32_t cur_fetch_time_us;
  std::int32_t sql_line;
  std::int32_t fetch_cnt;  // fetch reports of the service, as the two below
  std::int32_t fetch_rows;
  std::int32_t fetch_time;  // microseconds
  char db_user[11];
  char db_sid[11];
  std::uint8_t unused8[2];
  std::int64_t svc_mark_time;  // seconds: creation, last outermost start or end, release
};
VARN_PIN(PTRC_HASH_ENT, main_gid, 16);
VARN_PIN(PTRC_HASH_ENT, main_svc_id, 49);
VARN_PIN(PTRC_HASH_ENT, main_recv_svc_cd, 66);
VARN_PIN(PTRC_HASH_ENT, entry_stack, 79);
VARN_PIN(PTRC_HASH_ENT, entry_depth, 709);
VARN_PIN(PTRC_HASH_ENT, chnl_class, 710);
VARN_PIN(PTRC_HASH_ENT, prev_tran_state, 711);
VARN_PIN(PTRC_HASH_ENT, created, 712);
VARN_PIN(PTRC_HASH_ENT, err_rc_seen, 713);
VARN_PIN(PTRC_HASH_ENT, svc_timeout_seen, 714);
VARN_PIN(PTRC_HASH_ENT, in_dbio, 715);
VARN_PIN(PTRC_HASH_ENT, ent_proc_nm, 718);
VARN_PIN(PTRC_HASH_ENT, ent_cont_nm, 749);
VARN_PIN(PTRC_HASH_ENT, pid_txt, 780);
VARN_PIN(PTRC_HASH_ENT, tid_txt, 789);
VARN_PIN(PTRC_HASH_ENT, idx_txt, 805);
VARN_PIN(PTRC_HASH_ENT, ent_pid, 812);
VARN_PIN(PTRC_HASH_ENT, ent_tid, 816);
VARN_PIN(PTRC_HASH_ENT, snapshot_state, 824);
VARN_PIN(PTRC_HASH_ENT, snapshot_tx_cd, 825);
VARN_PIN(PTRC_HASH_ENT, snapshot_aux, 840);
VARN_PIN(PTRC_HASH_ENT, preset_time, 848);
VARN_PIN(PTRC_HASH_ENT, svc_start_time, 864);
VARN_PIN(PTRC_HASH_ENT, svc_end_time, 880);
VARN_PIN(PTRC_HASH_ENT, tran_state, 896);
VARN_PIN(PTRC_HASH_ENT, ent_status, 897);
VARN_PIN(PTRC_HASH_ENT, call_top, 898);
VARN_PIN(PTRC_HASH_ENT, call_last_top, 899);
VARN_PIN(PTRC_HASH_ENT, trc_depth, 900);
VARN_PIN(PTRC_HASH_ENT, call_nest, 904);
VARN_PIN(PTRC_HASH_ENT, call_cnt, 908);
VARN_PIN(PTRC_HASH_ENT, que_idx, 912);
VARN_PIN(PTRC_HASH_ENT, dbio_rec_off, 915);
VARN_PIN(PTRC_HASH_ENT, call_limit_us, 920);
VARN_PIN(PTRC_HASH_ENT, dbio_limit_us, 928);
VARN_PIN(PTRC_HASH_ENT, sql_limit_us, 936);
VARN_PIN(PTRC_HASH_ENT, call_stack, 944);
VARN_PIN(PTRC_HASH_ENT, dbio_elapsed_total, 17'264);
VARN_PIN(PTRC_HASH_ENT, sql_cnt, 17'272);
VARN_PIN(PTRC_HASH_ENT, sql_ent, 17'280);
VARN_PIN(PTRC_HASH_ENT, sql_id, 59'600);
VARN_PIN(PTRC_HASH_ENT, sqlcode, 59'936);
VARN_PIN(PTRC_HASH_ENT, sql_errm, 59'944);
VARN_PIN(PTRC_HASH_ENT, cur_fetch_rows, 60'048);
VARN_PIN(PTRC_HASH_ENT, cur_fetch_time_us, 60'052);
VARN_PIN(PTRC_HASH_ENT, sql_line, 60'056);
VARN_PIN(PTRC_HASH_ENT, fetch_cnt, 60'060);
VARN_PIN(PTRC_HASH_ENT, fetch_rows, 60'064);
VARN_PIN(PTRC_HASH_ENT, fetch_time, 60'068);
VARN_PIN(PTRC_HASH_ENT, db_user, 60'072);
VARN_PIN(PTRC_HASH_ENT, db_sid, 60'083);
VARN_PIN(PTRC_HASH_ENT, svc_mark_time, 60'096);
static_assert(sizeof(PTRC_HASH_ENT) == 60'104);

struct PTRC_HASH_TBL {
  std::uint32_t used;  // entries created
  std::int32_t heads[kTableChains];
  std::uint8_t padding[4];
  PTRC_HASH_ENT entries[kTableEntries];
  TableStack free_stack;
  TableStack used_stack;
};
VARN_PIN(PTRC_HASH_TBL, heads, 4);
VARN_PIN(PTRC_HASH_TBL, entries, 262'152);
VARN_PIN(PTRC_HASH_TBL, free_stack, 601'302'152);
VARN_PIN(PTRC_HASH_TBL, used_stack, 601'342'156);
static_assert(sizeof(PTRC_HASH_TBL) == 601'382'160);
static_assert(std::is_standard_layout_v<PTRC_HASH_TBL>);

}  // namespace varn
