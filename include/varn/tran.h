/* libvarn: the calls a traced process makes. Plain C, usable from C99 and C++.
 *
 * A process calls TRAN_INIT once, and a service TRAN_START where it begins to work on a request and
 * TRAN_END where it is done. In between, TRAN_CALLINFO_S and TRAN_CALLINFO_F stand around each
 * business and database call, TRAN_SQL_STMT reports the SQL of a database call, TRAN_INFO,
 * TRAN_EVENT, TRAN_ERRINFO and TRAN_ERROR what is worth knowing. Each of these that reports
 * composes a record of 784 bytes and puts it on a System V message queue without ever waiting: when
 * the queue is full, the record is dropped and counted.
 *
 * Rules that hold for every call below:
 *
 *   Thread number.  The first argument `tid`. Negative: the calling thread. 0: the process's own
 *                   context. Positive: an identity of the caller's choosing (a pooled task, a Java
 *                   thread); it may move between threads but is used by one of them at a time.
 *   Text pairs.     A text is a pointer and a length in bytes. A null pointer leaves the field
 *                   blank. A length of -1 means that the text ends at its zero byte. A text longer
 *                   than its field is cut, a shorter one padded with blanks; never is a byte read
 *                   beyond the field's width. Texts are EUC-KR by convention; the bytes are copied
 *                   as they are. The caller keeps ownership; nothing is kept after the return.
 *   Result.         0 or more, up to 15: done, and the number of the queue that took the record.
 *                   Otherwise a code of `enum tran_rc`.
 *   Threads.        Every call may be made from any thread at any time. Made from a signal handler
 *                   that interrupted another of these calls, it touches nothing and returns
 *                   TRAN_RC_NOT_SENT; so does every later call of a thread that left one of them
 *                   by longjmp. `errno` is left as it was. No call is a cancellation point.
 *   Waiting.        A thread's first call may wait up to 2 seconds for the shared table's semaphore
 *                   when its holder is stopped; no other call waits for anything.
 */
#ifndef VARN_TRAN_H
#define VARN_TRAN_H

#include <stdint.h>

#if defined(__GNUC__)
#define VARN_API __attribute__((visibility("default")))
#else
#define VARN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* What the calls return. Codes that only calls of a later release set are not listed. */
enum tran_rc {
  TRAN_RC_OK = 0,             /* success; a call that sent a record returns its queue, 0 to 15 */
  TRAN_RC_FAILED = -1,        /* TRAN_DONE: release failed; set_fst_err_rc_set: malformed value */
  TRAN_RC_NOT_READY = 99,     /* the collector has not marked its segment ready */
  TRAN_RC_SWITCHED_OFF = 100, /* this kind of record is switched off */
  TRAN_RC_BAD_SEGMENT = 101,  /* segment not attached, or its queue count is not 1 to 16 */
  TRAN_RC_UNKNOWN_TYPE = 102, /* unknown record type */
  TRAN_RC_NOT_STARTED = 103,  /* the agent is not started, or its configuration step failed */
  TRAN_RC_ALREADY_STARTED = 104,
  TRAN_RC_NOT_SENT = 105,       /* the record could not be put on its queue; counted */
  TRAN_RC_NO_ENVIRONMENT = 106, /* TRAN_HOME, TRAN_AGT_HOME or TRAN_AGT_CFG_FILE is not set */
  /* No free context: each of 256 buckets holds ten threads, and on Linux the POSIX ids of the
   * threads that a process creates fall into one bucket, so that the eleventh of them that passes a
   * negative number is refused. Set VARN_THREAD_ID=kernel in the environment to number threads by
   * their kernel id instead. */
  TRAN_RC_NO_CONTEXT = 107,
  TRAN_RC_CALL_TOO_DEEP = 109,  /* a business call's end beyond the traced depth: not recorded */
  TRAN_RC_CALL_SHORT = 110,     /* a business call shorter than its limit: not recorded */
  TRAN_RC_DBIO_SHORT = 111,     /* a database call shorter than its limit: not recorded */
  TRAN_RC_NO_SERVICE = 112,     /* the record needs an open service */
  TRAN_RC_TOO_MANY_SQL = 113,   /* a sixth SQL statement in one database call */
  TRAN_RC_CALL_DEPTH = 115,     /* no call is open, or more than 51 are; ends without starts */
  TRAN_RC_NO_ENTRY = 116,       /* the thread has no entry in the shared process-thread table */
  TRAN_RC_NO_MUTEX = 117,       /* a bucket's mutex could not be initialised */
  TRAN_RC_FOREIGN_ENTRY = 118,  /* the shared entry belongs to another thread */
  TRAN_RC_FILTERED = 121,       /* the service is excluded by service filtering */
  TRAN_RC_DBIO_IN_DBIO = 122,   /* a database call cannot be opened inside another */
  TRAN_RC_DEPTH = 123,          /* no service is open, or too many are */
  TRAN_RC_SHORT_TELEGRAM = 124, /* whole telegrams are logged, and this one has under 512 bytes */
  TRAN_RC_NOT_DBIO = 125,       /* the innermost open call is not a database call */
  TRAN_RC_SVCTIMEOUT = 126      /* TRAN_SET_SVCTIMEOUT was called: off until the next TRAN_INIT */
};

/* Starts the agent in this process: reads the environment and the configuration file, attaches the
 * collector's shared objects, announces the process with event "1508" and prints the banner to
 * standard output (not with VARN_CONSOLE=off in the environment). Starts one thread, "varn_tong",
 * which writes whole telegrams to their file and sleeps while there are none.
 * Returns 0, or 103, 104, 105, 106, 107, 116 or 117. After a failure it may be called again.
 * May wait for a bounded time (2 seconds) for the shared table's semaphore. */
VARN_API int TRAN_INIT(void);

/* Releases what TRAN_INIT attached. Calls made by other threads are refused from here on, and those
 * under way are waited for up to 3 seconds; so are telegrams that are queued for their file, as
 * long as the disk takes them. Those that a process without TRAN_DONE has queued when it exits are
 * lost. Returns 0; or -1 when a call is still under way or a segment could not be detached:
 * everything then stays attached for the next TRAN_INIT. Done without a start it returns 0. */
VARN_API int TRAN_DONE(void);

/* The texts that every service call takes after the thread number, whichever others follow. Each is
 * a pair: `const char* NAME, int NAME_len`.
 *
 *   X(name, width)           width: bytes of its field in the record
 */
#define TRAN_COMMON_FIELD_LIST(X)                                                        \
  X(hdr_cd, 2)          /* caller's two-character code */                                \
  X(hdr_flag, 1)        /* caller's one-character code */                                \
  X(gid, 32)            /* global transaction id (GID); its first 30 characters count */ \
  X(svc_id, 16)         /* service id */                                                 \
  X(pid_str, 8)         /* process id text; the process id when null */                  \
  X(date_str, 8)        /* YYYYMMDD; the local date when null */                         \
  X(time_str, 12)       /* HHMMSSuuuuuu; the local time when null. An end that gives it  \
                           reports no response time */                                   \
  X(ext_flag, 1)        /* one-character flag */                                         \
  X(trsc_grco_br, 6)    /* group-company code (2) and branch number (4) */               \
  X(chnl_typ_cd, 3)     /* channel type; "ICT" and "ICC" are linked channels */          \
  X(recv_svc_cd, 12)    /* receive service code */                                       \
  X(scrn_id, 9)         /* screen id */                                                  \
  X(emp_no, 7)          /* employee number */                                            \
  X(proc_rslt_dv_cd, 1) /* processing-result code */                                     \
  X(std_tmsg_err_cd, 9) /* telegram error code */

/* The 29 texts of a transaction. */
#define TRAN_FIELD_LIST(X)                                             \
  TRAN_COMMON_FIELD_LIST(X)                                            \
  X(std_tmsg_len, 8)       /* telegram length, as text */              \
  X(ipv6_adr, 39)          /* IPv6 address, as text */                 \
  X(fst_trms_sys_cd, 3)    /* first transmitting system */             \
  X(trms_sys_cd, 3)        /* transmitting system */                   \
  X(rqst_rsps_dv_cd, 1)    /* request or response */                   \
  X(trsc_sync_dv_cd, 1)    /* synchronous or asynchronous */           \
  X(rslt_recv_svc_cd, 12)  /* service code that receives the result */ \
  X(eai_intf_id, 16)       /* EAI interface id */                      \
  X(dsbl_sys_cd, 3)        /* failing system */                        \
  X(otsd_inst_cd, 4)       /* outside institution */                   \
  X(otsd_biz_cd, 3)        /* outside business */                      \
  X(fst_trms_mdcl_ctt, 39) /* first-transmission medium */             \
  X(spare1, 1)             /* free */                                  \
  X(spare2, 1)             /* free */

/* The 20 texts of a partial transaction: the common ones and five of the caller's own. */
#define TRAN_PARTIAL_FIELD_LIST(X) \
  TRAN_COMMON_FIELD_LIST(X)        \
  X(pt_param_1, 30)                \
  X(pt_param_2, 20)                \
  X(pt_param_3, 20)                \
  X(pt_param_4, 30)                \
  X(pt_param_5, 3)

/* clang-format off */
#define TRAN_PAIR_PARAMETER(name, width) , const char* name, int name##_len
#define TRAN_FIELD_PARAMETERS TRAN_FIELD_LIST(TRAN_PAIR_PARAMETER)
#define TRAN_PARTIAL_FIELD_PARAMETERS TRAN_PARTIAL_FIELD_LIST(TRAN_PAIR_PARAMETER)
/* clang-format on */

/* Opens a service on the thread, up to ten deep, and sends record '1'. Inside an open service, the
 * same GID nests one level deeper; another GID does so too and is reported as a linked transaction,
 * unless the channel is "ICT" or "ICC". Levels left open by a service that never ended are dropped
 * once they are older than DEFAULT_TIMEOUT_SEC. A start refused with 100, 118 or 121 still counts
 * as a level: call TRAN_END for it. Returns the queue number, or 99 to 103, 105, 107, 116, 118,
 * 121, 123, 126. */
VARN_API int TRAN_START(int tid TRAN_FIELD_PARAMETERS);

/* Closes the thread's innermost service and sends record '2' with the GID and service id given at
 * its start, and event "1801" when `gid` differs from that; at the outermost level also with the
 * response time in microseconds and the statistics of its calls. A refused end closes the level.
 * Returns as TRAN_START; 123 when no service is open. */
VARN_API int TRAN_END(int tid TRAN_FIELD_PARAMETERS);

/* Sends record '9' for the thread's innermost service, whose GID and service id it carries (`gid`
 * and `svc_id` are not used). Changes no state.
 * Returns as TRAN_START; 123 when no service is open, 112 when its start was refused. */
VARN_API int TRAN_ERROR(int tid TRAN_FIELD_PARAMETERS);

/* ---- Services described by a whole telegram ---------------------------------------------------
 */

/* Opens a service that the telegram of a request describes: logs the telegram where whole telegrams
 * are logged, cuts the texts of TRAN_FIELD_LIST out of it, reports a GID that is not the telegram's
 * as two information records, and makes the TRAN_START, or for a service id that begins with "CLH"
 * the TRAN_CLH_START. An agent that was not started before is started first; one whose start failed
 * is not tried again (103).
 *
 *   gid, gid_len         GID of the service; at channels "ICT" and "ICC" the telegram's counts
 *   svc_id, svc_id_len   of exactly 12 characters, the first 9 count (not for "CLH"). Telegrams
 *                        for services that begin with "CLH" or "SPFMIPPR" are not logged
 *   sttl, sttl_len       the telegram and its length in bytes; -1: up to its zero byte. What it
 *                        is too short for is blank. Null: the service has these texts alone
 *   std_layout           non-zero: the standard layout of varn/sttl.h. Zero: the fixed layout,
 *                        whose telegrams begin with their length as four binary bytes (one of
 *                        which is zero: give sttl_len), whose fields end at a zero byte, and
 *                        which are not logged
 *   ext_on               ext_flag is "1" when non-zero, "0" when zero
 *
 * Returns what the call it makes returns; 124 for a telegram that is to be logged and has under 512
 * bytes, which is then not traced. */
VARN_API int TRAN_STARTX(int tid, const char* hdr_cd, int hdr_cd_len, const char* hdr_flag,
                         int hdr_flag_len, const char* gid, int gid_len, const char* svc_id,
                         int svc_id_len, const char* sttl, int sttl_len, int std_layout,
                         int ext_on);

/* Closes the service with the telegram of the response, logged likewise, by a TRAN_END, or for a
 * service id that begins with "CLH" (without a telegram or in the fixed layout also "GW") by a
 * TRAN_CLH_END. A result code other than '0' and blank is reported first: a TRAN_ERROR, and from
 * the error part of a standard telegram (data kind "EM", over 1,084 bytes) the first message as
 * error information "1105" (result '1'), "1106" ('8'), "1107" ('9') or "9999", and each additional
 * message as an information record. An error part that runs past the telegram's end is reported as
 * far as it is there. Does not start the agent. Returns what the end call returns, or 124. */
VARN_API int TRAN_ENDX(int tid, const char* hdr_cd, int hdr_cd_len, const char* hdr_flag,
                       int hdr_flag_len, const char* gid, int gid_len, const char* svc_id,
                       int svc_id_len, const char* sttl, int sttl_len, int std_layout, int ext_on);

/* ---- Partial services, and services of one level ----------------------------------------------
 */

/* As TRAN_START, with texts of the caller's own in place of a telegram's. Every GID other than the
 * open service's is a linked transaction, whatever the channel. */
VARN_API int TRAN_PT_START(int tid TRAN_PARTIAL_FIELD_PARAMETERS);

/* As TRAN_END, but for this: a refused end leaves the level open, and a changed GID is not
 * reported.
 */
VARN_API int TRAN_PT_END(int tid TRAN_PARTIAL_FIELD_PARAMETERS);

/* Services of a client handler, on threads that keep no levels: each call puts the thread at depth
 * 1 whatever it was before, and sends a record '1', '2' or '9' with the texts given to it. The end
 * reports no response time and does not lower the depth; an error needs no open service.
 * Return the queue number, or 99 to 103, 105, 107, 116, 118, 121, 126. */
VARN_API int TRAN_CLH_START(int tid TRAN_FIELD_PARAMETERS);
VARN_API int TRAN_CLH_END(int tid TRAN_FIELD_PARAMETERS);
VARN_API int TRAN_CLH_ERROR(int tid TRAN_FIELD_PARAMETERS);

/* The same with the texts of a partial transaction. */
VARN_API int TRAN_WEB_START(int tid TRAN_PARTIAL_FIELD_PARAMETERS);
VARN_API int TRAN_WEB_END(int tid TRAN_PARTIAL_FIELD_PARAMETERS);

/* Put the thread at depth 1 and send nothing, so that notices may follow. The texts are not used.
 * Return 0, or 99 to 101, 103, 105, 107, 116, 126. */
VARN_API int TRAN_FEP_START(int tid, const char* unused1, int unused1_len, const char* unused2,
                            int unused2_len);
VARN_API int TRAN_FEP_END(int tid, const char* unused1, int unused1_len, const char* unused2,
                          int unused2_len);

/* ---- Notices ----------------------------------------------------------------------------------
 */

/* The pairs that the four calls below begin with; as in TRAN_FIELD_LIST. */
/* clang-format off */
#define TRAN_HEAD_PARAMETERS                                                                 \
  int tid, const char* hdr_cd, int hdr_cd_len, const char* hdr_flag, int hdr_flag_len,       \
      const char* gid, int gid_len, const char* svc_id, int svc_id_len, const char* pid_str, \
      int pid_str_len, const char* date_str, int date_str_len, const char* time_str,         \
      int time_str_len
/* clang-format on */

/* Sends an information record ('I') with a message of up to 350 bytes. Without a GID or a service
 * id it takes those of the innermost open service; with neither a service id nor an open service it
 * returns 123. */
VARN_API int TRAN_INFO(TRAN_HEAD_PARAMETERS, const char* message, int message_len);

/* Sends an extended information record ('X'): a code of up to 4 bytes and a message of up to 350.
 * Needs no open service; without a GID it takes that of the innermost one, if any. */
VARN_API int TRAN_INFO_EX(TRAN_HEAD_PARAMETERS, const char* code, int code_len, const char* message,
                          int message_len);

/* Sends an event record ('V'): a code of up to 4 bytes, a receive service code (12), a channel
 * class (4) and a message of up to 512 bytes. Needs no open service. */
VARN_API int TRAN_EVENT(TRAN_HEAD_PARAMETERS, const char* event_cd, int event_cd_len,
                        const char* recv_svc_cd, int recv_svc_cd_len, const char* chnl_class,
                        int chnl_class_len, const char* message, int message_len);

/* Sends an error-information record ('E') for the innermost open service, whose GID and service id
 * it carries: an error code of up to 4 bytes, a receive service code (12), a channel class (4) and
 * a message of up to 350 bytes. Returns 123 or 112 when no service is open. */
VARN_API int TRAN_ERRINFO(TRAN_HEAD_PARAMETERS, const char* error_cd, int error_cd_len,
                          const char* recv_svc_cd, int recv_svc_cd_len, const char* chnl_class,
                          int chnl_class_len, const char* message, int message_len);

/* Called when the transaction monitor signals a service time-out: reports what the thread was doing
 * as an information record and switches tracing off for the process (126) until the next start.
 * Returns 0, or 103, 107 or 116 when the thread has no context. Inside another call of its thread
 * it only switches tracing off, and returns 105. */
VARN_API int TRAN_SET_SVCTIMEOUT(int tid);

/* ---- Calls inside a service ------------------------------------------------------------------ */

/* What TRAN_CALLINFO_S and TRAN_CALLINFO_F take. Which of the two uses what, and how, is told at
 * each; what it does not use may be null and zero. */
/* clang-format off */
#define TRAN_CALL_PARAMETERS                                                              \
  TRAN_HEAD_PARAMETERS, const char* call_at, int call_at_len, const char* call_src,       \
      int call_src_len, int line, int status, const char* func_nm, int func_nm_len,       \
      const char* label, int label_len
/* clang-format on */

/* Opens a call of a function inside the thread's innermost service; sends nothing. It is a database
 * call when the name matches the configured signature at the configured position, else a business
 * call. Business calls nested deeper than the configured depth are counted, not traced.
 *   call_at, call_src, line   where the call is made: place (70), source file (100), line number
 *   status                    -1: the call's return code is of no interest (recorded as 99)
 *   func_nm                   the function's name (70); null counts as an empty one
 * Returns 0, or 99 to 103, 107, 112, 115, 116, 118, 121, 122, 123, 126. A start refused with 115 or
 * 122 opens nothing, though it counts in the depth: an end for it would close the call around it.
 */
VARN_API int TRAN_CALLINFO_S(TRAN_CALL_PARAMETERS);

/* Closes the innermost open call, whatever its name, and records it (kind 'B' or 'C') when it took
 * at least the configured time or ended with a return code of an error class: its time, that of the
 * calls in it, place, function name, number and return code, for a database call also what was told
 * of its SQL. Its pending SQL statements are sent before it.
 *   hdr_cd, hdr_flag, pid_str, date_str, time_str   for the record's header
 *   call_at, call_src, line   place, source file (the start's when null), line number
 *   status                    the call's return code
 *   func_nm                   decides whether this is the end of a database call
 *   label                     what stands in front; "METHOD" for a business call when null
 * The record's text is cut at 350 bytes. Returns the queue number, or 99 to 103, 105, 107, 109 to
 * 112, 115, 116, 118, 121, 123, 126. */
VARN_API int TRAN_CALLINFO_F(TRAN_CALL_PARAMETERS);

/* ---- SQL of a database call ------------------------------------------------------------------ */

/* Keeps an SQL identifier of up to 200 bytes in the thread's shared entry. Needs no service.
 * Returns 0, or 99 to 103, 107, 116, 126. */
VARN_API int TRAN_SQL_ID(int tid, const char* sql_id, int sql_id_len);

#define TRAN_SQL_ADD 0   /* keep the statement until the database call ends */
#define TRAN_SQL_FLUSH 1 /* send what is kept; the end of a database call does it by itself */
#define TRAN_SQL_KIND_MS 9999

/* Reports an SQL statement of the innermost open call, a database call. Up to five different
 * statements are kept; the same one again, right after, is counted instead. Those that took at
 * least the configured time are sent as records 'Q', in pieces of up to 350 bytes.
 *   mode                  TRAN_SQL_ADD or TRAN_SQL_FLUSH; with any other it does nothing
 *   date_str, time_str    of the records, as in TRAN_FIELD_LIST
 *   kind                  the caller's statement kind, 16 bits
 *   start, end            two words each, seconds and microseconds since 1970; with
 *                         TRAN_SQL_KIND_MS one word each, milliseconds. Null: the current time
 *   statement             zero-ended, up to 8,192 bytes; never cut inside a Hangul character
 * Returns 0 or the queue number, or 99 to 103, 105, 107, 112, 113, 115, 116, 118, 121, 123, 125,
 * 126. */
VARN_API int TRAN_SQL_STMT(int tid, int mode, const char* date_str, int date_str_len,
                           const char* time_str, int time_str_len, int kind, const int64_t* start,
                           const int64_t* end, const char* statement);

/* Takes the current time as that of the thread's next outermost TRAN_START or TRAN_END.
 * Returns 0, or 99, 101, 103, 107, 116, 126. */
VARN_API int TRAN_SET_TIME(int tid);

/* Whether a statement that took `elapsed_us` microseconds would be sent: 0; -1 when it is shorter
 * than the service's limit; 103, 107 or 116. */
VARN_API int TRAN_CHECK_SQL_TIME(int tid, int64_t elapsed_us);

/* The hash by which services stand in their table, of a whole zero-ended text; 0 for null. `tid`
 * and the three arguments behind it are not used. */
VARN_API int TRAN_GET_HASH_CODE(int tid, const void* unused1, const void* unused2, int unused3,
                                const char* text);

/* Says whether the thread is in a database call (low byte of `status`), for those who look at the
 * shared entry. Returns 0, 103, 107 or 116. */
VARN_API int TRAN_SET_DBIO_STS(int tid, int status);

/* Reports the outcome of the innermost open database call's SQL. 0 and 1403 (no data) do not
 * replace an earlier code; any other one is kept with its message (100 bytes) and raises event
 * "1810". `message` is zero-ended, `line` the statement's line in its source.
 * Returns 0, also when the innermost call is a business call; 103, 107, 115, 116, 123. */
VARN_API int TRAN_SET_SQLCA_INFO(int tid, int64_t sqlcode, const char* message, int16_t line);

/* Names the database user and instance (10 bytes each) that records of database calls show. To be
 * called before TRAN_INIT; a null leaves what was set before. `tid` is not used. Returns 0. */
VARN_API int TRAN_SET_DBCONN_INFO(int tid, const char* user, const char* instance);

/* Reports rows fetched and the time it took in microseconds, for the current database call and for
 * the service. Returns 0, 103, 107 or 116. */
VARN_API int TRAN_SET_FETCH_INFO(int tid, int rows, int64_t time_us, int16_t line);

/* ---- Every function of a program ------------------------------------------------------------- */

/* Names a function for the hooks below. The first name given to an address stays. The name is
 * copied; a null one is ignored. */
VARN_API void TRAN_ADD_PROFILE(uint64_t func_addr, const char* func_name);

/* Forgets a function's name. */
VARN_API void TRAN_DEL_PROFILE(uint64_t func_addr);

/* What code compiled with -finstrument-functions calls. Each makes the call's TRAN_CALLINFO_S or
 * TRAN_CALLINFO_F under the function's name ("?" without one) and the label "DYCALL", and prints a
 * line of the call tree: the opening one to standard error, the closing one to standard output (not
 * with VARN_CONSOLE=off). */
/* NOLINTBEGIN(bugprone-reserved-identifier): the compiler's names */
VARN_API void __cyg_profile_func_enter(void* this_fn, void* call_site);
VARN_API void __cyg_profile_func_exit(void* this_fn, void* call_site);
/* NOLINTEND(bugprone-reserved-identifier) */

/* ---- Helpers, for tools and for hosts that compose records of their own ---------------------- */

/* Whether a record of the type in the low byte of `rec_type` ('1', '2', '9', 'B', 'C', 'E', 'I',
 * 'Q', 'V', 'X') would be admitted now: 0, or 99, 100, 101, 103 or 126. '_' asks for the agent's
 * state alone. Also 105 inside another call, and 107 where more than 4,096 threads are alive. Cheap
 * enough to ask before building a message. */
VARN_API int check_gvar(int rec_type);

/* The byte of record kinds for a string of letters: S E V B C I X Q. Others are ignored; null
 * gives 0. */
VARN_API unsigned char get_log_flag_set(const char* letters);

/* Sets, in the collector's segment, the class (0, 1 or 2) of the return codes of one magnitude,
 * from a text of the form "-5,1"; a magnitude of 128 sets them all. Returns 0; -1 for a malformed
 * value or when the agent is not started. */
VARN_API int set_fst_err_rc_set(const char* text);

/* The outcome of a finished call: the status word given at its start and its return code. */
typedef struct tran_call_rc {
  int32_t status;
  int32_t rc;
} tran_call_rc;

/* The error class of a finished call: 0 none, 1 or 2 as configured for the magnitude of a negative
 * return code. A status of -1 sets the return code to 99 and gives 0. A null pointer gives 0,
 * and so does any other outcome while the agent is not started. */
VARN_API int is_err_rc(tran_call_rc* call);

/* Writes one field of a record: `width` bytes of `dst`, from `src` cut or padded with blanks, and
 * one blank behind them, so `dst` holds width + 1 bytes. A null `src` gives a blank field; a
 * negative `len` means zero-ended; with `copy` zero the text's place is left as it is and only the
 * padding is written. A null `dst` or negative width does nothing. */
VARN_API void set_log_field(const char* src, int len, char* dst, int width, int copy);

/* 1 when the configuration file's modification time has changed since the last look (at most one
 * look a minute), else 0. Settings are read at start-up only. */
VARN_API int read_config(void);

/* Prints the banner to standard output, unless VARN_CONSOLE=off. */
VARN_API void print_logo(void);

#ifdef __cplusplus
}
#endif

#endif
