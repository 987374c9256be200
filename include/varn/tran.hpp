// libvarn for C++17 and later: the calls of tran.h as guards that open something where they are
// made and close it where their scope ends, however it is left.
//
//   varn::Texts texts;
//   texts.gid = gid;
//   texts.svc_id = "XFER0001";
//   varn::Service service(texts);                    // TRAN_START ... TRAN_END
//   {
//     varn::Call call("check_limit");                // TRAN_CALLINFO_S ... TRAN_CALLINFO_F
//     varn::DbCall select("db_select_limit");        // the same around a function of the database
//     {
//       varn::Sql sql("SELECT limit FROM ...");      // its time, for TRAN_SQL_STMT
//       ...
//     }
//     select.set_sqlca(0);
//   }
//   service.set_result('0');
//
// Rules that hold for everything below, besides those of tran.h:
//
//   Texts.       A std::string_view, which need not be zero-ended; one that was never set is passed
//                as null. EUC-KR by convention. A guard keeps the views that it is given: what they
//                refer to must outlive it. A size over INT_MAX counts as INT_MAX.
//   Threads.     `tid` is that of tran.h: negative for the calling thread, else a number of the
//                caller's choosing, the same for a service and everything in it. A guard is used by
//                one thread at a time, and by the one that made it where `tid` is negative.
//   Nesting.     Guards end in the reverse order in which they were made, as those of a scope do.
//   Exceptions.  Nothing here throws or allocates. A guard that is left by an exception ends as
//                failed. Guards can be neither copied nor moved.
//   Refusals.    A start that the agent refuses is never an error of the program: the guard then
//                leaves out the end that would have closed something else.
#ifndef VARN_TRAN_HPP
#define VARN_TRAN_HPP

#include <sys/time.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string_view>

#include "varn/tran.h"

namespace varn {

inline constexpr int kCallingThread = -1;
inline constexpr char kFailedResult = '9';  // of a service that an exception left
inline constexpr int kFailedRc = -1;        // of a call that an exception left

#define VARN_TEXT(name, width) std::string_view name = {};
#define VARN_PAIR(text) (text).data(), detail::length(text)
#define VARN_NONE nullptr, 0

// The 29 texts of a transaction, by name; see TRAN_FIELD_LIST for their meanings and widths.
struct Texts {
  TRAN_FIELD_LIST(VARN_TEXT)
};

// Where in the program a call is made: what call_at, call_src and line say of it.
struct Place {
  const char* function;  // zero-ended, as `file`; both outlive the guard that is given them
  const char* file;
  int line;

  // As a default argument: the place of the call that leaves it out. The file comes without its
  // directories, since all of a call's record has to fit into 350 bytes.
  static constexpr Place current(const char* function = __builtin_FUNCTION(),
                                 const char* file = __builtin_FILE(),
                                 int line = __builtin_LINE()) noexcept {
    const std::size_t slash = std::string_view(file).rfind('/');
    return {function, slash == std::string_view::npos ? file : file + slash + 1, line};
  }
};

namespace detail {

constexpr int length(std::string_view text) noexcept {
  return text.size() > INT_MAX ? INT_MAX : static_cast<int>(text.size());
}

constexpr std::int16_t line_number(int line) noexcept {
  return line < 0 || line > INT16_MAX ? std::int16_t{INT16_MAX} : static_cast<std::int16_t>(line);
}

// Whether an exception is on its way that was not when this was made.
class Unwinding {
 public:
  explicit operator bool() const noexcept { return std::uncaught_exceptions() > before_; }

 private:
  int before_ = std::uncaught_exceptions();
};

inline int call(int (*tran)(int TRAN_FIELD_PARAMETERS), int tid, const Texts& texts) noexcept {
#define VARN_TEXT_PAIR(name, width) , VARN_PAIR(texts.name)
  return tran(tid TRAN_FIELD_LIST(VARN_TEXT_PAIR));
#undef VARN_TEXT_PAIR
}

}  // namespace detail

// A service, from its start to its end.
class [[nodiscard]] Service {
 public:
  explicit Service(const Texts& texts, int tid = kCallingThread) noexcept
      : texts_(texts), tid_(tid), rc_(detail::call(TRAN_START, tid, texts)) {}
  ~Service() {
    if (!counts_as_level()) return;
    if (unwinding_) set_result(kFailedResult, texts_.std_tmsg_err_cd);
    detail::call(TRAN_END, tid_, texts_);
  }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // What TRAN_START returned: the number of a queue, or a code of `enum tran_rc`.
  int rc() const noexcept { return rc_; }

  // The texts that the end and error() carry: at first those of the start.
  Texts& texts() noexcept { return texts_; }

  // The result that the end and error() carry: the processing-result code, '0' or a blank for
  // success, and the telegram error code of up to 9 characters. Without it they carry what stands
  // in texts(). An exception that leaves the service puts kFailedResult in the place of the first.
  void set_result(char proc_rslt_dv_cd, std::string_view std_tmsg_err_cd = {}) noexcept {
    result_ = proc_rslt_dv_cd;
    texts_.proc_rslt_dv_cd = {&result_, 1};
    texts_.std_tmsg_err_cd = std_tmsg_err_cd;
  }

  // Reports the service's error in a record of its own; to be called while it is the innermost
  // one. Returns as TRAN_ERROR.
  int error() noexcept { return detail::call(TRAN_ERROR, tid_, texts_); }

 private:
  // The starts for which the agent waits for an end, also among those that it did not record.
  bool counts_as_level() const noexcept {
    return (rc_ >= 0 && rc_ < 16) || rc_ == TRAN_RC_NOT_SENT || rc_ == TRAN_RC_SWITCHED_OFF ||
           rc_ == TRAN_RC_FILTERED || rc_ == TRAN_RC_FOREIGN_ENTRY;
  }

  Texts texts_;
  detail::Unwinding unwinding_;
  int tid_;
  int rc_;
  char result_ = ' ';
};

// A call of a function inside a service, from its start to its end. The configured signature makes
// it a business or a database call.
class [[nodiscard]] Call {
 public:
  // `func` is the function's name (70 bytes), `label` what stands in front of it in the record
  // ("METHOD" for a business call when not set).
  explicit Call(std::string_view func, std::string_view label = {}, int tid = kCallingThread,
                Place place = Place::current()) noexcept
      : func_(func), label_(label), place_(place), tid_(tid), start_rc_(send(TRAN_CALLINFO_S, 0)) {}
  ~Call() {
    if (start_rc_ != TRAN_RC_OK) return;  // its end would close the call around it
    if (unwinding_ && rc_ >= 0) rc_ = kFailedRc;
    send(TRAN_CALLINFO_F, rc_);
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // What TRAN_CALLINFO_S returned: 0, or a code of `enum tran_rc`.
  int start_rc() const noexcept { return start_rc_; }

  // The return code that the end carries, 0 when none is set. A negative one may have the call
  // recorded however short it was. An exception that leaves the call makes it kFailedRc, unless it
  // is negative already.
  void set_rc(int rc) noexcept { rc_ = rc; }

  int tid() const noexcept { return tid_; }

 private:
  int send(int (*tran)(TRAN_CALL_PARAMETERS), int status) const noexcept {
    return tran(tid_, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE,
                place_.function, -1, place_.file, -1, place_.line, status, VARN_PAIR(func_),
                VARN_PAIR(label_));
  }

  std::string_view func_;
  std::string_view label_;
  Place place_;
  detail::Unwinding unwinding_;
  int tid_;
  int start_rc_;
  int rc_ = 0;
};

// A call of a function that works on the database, and what there is to tell of its SQL. Its name
// must bear the configured signature ("db" at its start, unless configured otherwise); under
// another one it is a business call, and the SQL is not recorded. What the setters tell goes to the
// innermost open call, so they are to be used while that is this one.
class [[nodiscard]] DbCall {
 public:
  explicit DbCall(std::string_view func, std::string_view label = {}, int tid = kCallingThread,
                  Place place = Place::current()) noexcept
      : call_(func, label, tid, place) {}

  // As Call's.
  int start_rc() const noexcept { return call_.start_rc(); }
  void set_rc(int rc) noexcept { call_.set_rc(rc); }

  // The outcome of the SQL: 0, 1403 for no data, else an error, which is kept with its message
  // (512 bytes count) and raises event "1810". `line` is the statement's in its source. Returns as
  // TRAN_SET_SQLCA_INFO, or why the call was not started.
  int set_sqlca(std::int64_t sqlcode, std::string_view message = {},
                int line = __builtin_LINE()) noexcept {
    if (start_rc() != TRAN_RC_OK) return start_rc();
    char ended[513];  // the call takes a zero-ended message, and an event holds 512 bytes of it
    const std::size_t size = message.size() < sizeof ended ? message.size() : sizeof ended - 1;
    if (size > 0) std::memcpy(ended, message.data(), size);
    ended[size] = '\0';
    return TRAN_SET_SQLCA_INFO(call_.tid(), sqlcode, ended, detail::line_number(line));
  }

  // Rows fetched, and the time that it took in microseconds. Returns as TRAN_SET_FETCH_INFO, or why
  // the call was not started.
  int set_fetch(int rows, std::int64_t time_us, int line = __builtin_LINE()) noexcept {
    if (start_rc() != TRAN_RC_OK) return start_rc();
    return TRAN_SET_FETCH_INFO(call_.tid(), rows, time_us, detail::line_number(line));
  }

  // The identifier of the SQL, of up to 200 bytes. Returns as TRAN_SQL_ID.
  int sql_id(std::string_view id) noexcept { return TRAN_SQL_ID(call_.tid(), VARN_PAIR(id)); }

 private:
  Call call_;
};

// An SQL statement, from here to the end of the scope: its time is reported with its text to the
// innermost open call, a DbCall, which sends both when it ends.
class [[nodiscard]] Sql {
 public:
  // `statement` is zero-ended, up to 8,192 bytes, and outlives the guard. It is no string_view
  // because TRAN_SQL_STMT finds the end by itself: a view would have to be copied, all 8 KB of it,
  // and statements are literals or strings that end in a zero anyway. `kind` is the caller's
  // statement kind, 16 bits.
  explicit Sql(const char* statement, int kind = 0, int tid = kCallingThread) noexcept
      : statement_(statement), kind_(kind), tid_(tid), start_(kind) {}
  ~Sql() {
    const Time end(kind_);
    TRAN_SQL_STMT(tid_, TRAN_SQL_ADD, VARN_NONE, VARN_NONE, kind_, start_.words, end.words,
                  statement_);
  }
  Sql(const Sql&) = delete;
  Sql& operator=(const Sql&) = delete;

 private:
  // The current time in the form that the statement's kind asks for, of the agent's own clock.
  struct Time {
    explicit Time(int kind) noexcept {
      timeval now;
      gettimeofday(&now, nullptr);
      const bool whole_ms = kind == TRAN_SQL_KIND_MS;
      words[0] = whole_ms ? std::int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000 : now.tv_sec;
      words[1] = whole_ms ? 0 : now.tv_usec;
    }
    std::int64_t words[2];
  };

  const char* statement_;
  int kind_;
  int tid_;
  Time start_;
};

// Sends an information record with a message of up to 350 bytes for the innermost open service.
// Returns as TRAN_INFO.
inline int info(std::string_view message, int tid = kCallingThread) noexcept {
  return TRAN_INFO(tid, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE,
                   VARN_PAIR(message));
}

// What event() and error_info() say.
struct Notice {
  std::string_view code = {};         // 4 bytes
  std::string_view message = {};      // 512 bytes, of an error 350
  std::string_view recv_svc_cd = {};  // receive service code, 12 bytes
  std::string_view chnl_class = {};   // channel class, 4 bytes
  std::string_view gid = {};          // GID and service id, of an event: an error has those
  std::string_view svc_id = {};       // of the innermost open service
};

// Sends an event record; needs no open service. Returns as TRAN_EVENT.
inline int event(const Notice& notice, int tid = kCallingThread) noexcept {
  return TRAN_EVENT(tid, VARN_NONE, VARN_NONE, VARN_PAIR(notice.gid), VARN_PAIR(notice.svc_id),
                    VARN_NONE, VARN_NONE, VARN_NONE, VARN_PAIR(notice.code),
                    VARN_PAIR(notice.recv_svc_cd), VARN_PAIR(notice.chnl_class),
                    VARN_PAIR(notice.message));
}

// Sends an error-information record for the innermost open service. Returns as TRAN_ERRINFO.
inline int error_info(const Notice& notice, int tid = kCallingThread) noexcept {
  return TRAN_ERRINFO(tid, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE, VARN_NONE,
                      VARN_NONE, VARN_PAIR(notice.code), VARN_PAIR(notice.recv_svc_cd),
                      VARN_PAIR(notice.chnl_class), VARN_PAIR(notice.message));
}

#undef VARN_NONE
#undef VARN_PAIR
#undef VARN_TEXT

}  // namespace varn

#endif
