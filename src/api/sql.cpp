// The calls that tell of a database call's SQL, and the database setters beside them.
#include <algorithm>
#include <cstring>

#include "api/edge.h"
#include "core/call_stack.h"
#include "core/gvar.h"
#include "core/notice.h"
#include "core/sql.h"
#include "hash/hash.h"
#include "util/clock.h"
#include "util/message.h"
#include "util/shared_word.h"

namespace varn {
namespace {

constexpr std::int64_t kNoData = 1403;
constexpr std::size_t kMostErrorText = 1023;

// A caller's time value in the form that its statement kind says.
TimeVal given_time(const std::int64_t* words, int kind) {
  if (words == nullptr) return now();
  if (kind != TRAN_SQL_KIND_MS) return {words[0], words[1]};
  return {words[0] / 1000, words[0] % 1000 * 1000};
}

// A service and in it a call are open: 0, or 115 or 123.
int find_open_call(MTR_CXT_VAR& var, SvcLevel** level, CallEntry** call) {
  *level = current_level(var);
  if (*level == nullptr) return TRAN_RC_DEPTH;
  *call = innermost_call(*var.ptrc);
  return *call == nullptr ? TRAN_RC_CALL_DEPTH : TRAN_RC_OK;
}

int trace_statement(MTR_CXT_VAR& var, int mode, const Statement& statement) {
  SvcLevel* level = nullptr;
  CallEntry* call = nullptr;
  if (const int rc = find_open_call(var, &level, &call); rc != 0) return rc;
  if (load(call->type) != kDbioCall) return TRAN_RC_NOT_DBIO;
  switch (mode) {
    case TRAN_SQL_ADD:
      return add_statement(var, *level, *call, statement);
    case TRAN_SQL_FLUSH:
      return flush_statements(var);
    default:
      return TRAN_RC_OK;
  }
}

void report_sql_error(MTR_CXT_VAR& var, const SvcLevel& level, const CallEntry& call,
                      std::int64_t sqlcode, Text message, std::int16_t line) {
  Message<kMostErrorText> text;
  text << "ORA에러발생, [" << printable(Text::of(call.func_nm), sizeof call.func_nm) << ':'
       << std::int32_t{line} << "] SQLCODE(" << sqlcode << ") "
       << printable(message, kMostErrorText);
  Event event;
  event.gid = Text::of(level.gid);
  event.svc_id = Text::of(level.svc_id);
  event.event_cd = {"1810", 4};
  event.recv_svc_cd = {level.recv_svc_cd, -1};
  event.message = text.text();
  emit_event(var, event);
}

int set_sqlca_info(MTR_CXT_VAR& var, std::int64_t sqlcode, Text message, std::int16_t line) {
  SvcLevel* level = nullptr;
  CallEntry* call = nullptr;
  if (const int rc = find_open_call(var, &level, &call); rc != 0) return rc;
  if (load(call->type) != kDbioCall) return TRAN_RC_OK;

  PTRC_HASH_ENT& entry = *var.ptrc;
  if (sqlcode == 0 || sqlcode == kNoData) {
    if (load(entry.sqlcode) == kNoSqlcode) store(entry.sqlcode, sqlcode);
    return TRAN_RC_OK;
  }
  store(entry.sqlcode, sqlcode);
  const std::string_view kept = printable(message, sizeof entry.sql_errm);
  if (!kept.empty()) std::memcpy(entry.sql_errm, kept.data(), kept.size());
  if (kept.size() < sizeof entry.sql_errm) entry.sql_errm[kept.size()] = '\0';
  report_sql_error(var, *level, *call, sqlcode, message, line);
  return TRAN_RC_OK;
}

}  // namespace
}  // namespace varn

using namespace varn;

extern "C" {

int TRAN_SQL_ID(int tid, const char* sql_id, int sql_id_len) {
  return Call(kKind<'Q'>.log_flag).in_context(tid, [&](MTR_CXT_VAR& var) {
    PTRC_HASH_ENT& entry = *var.ptrc;
    put_padded(entry.sql_id, sizeof entry.sql_id, {sql_id, sql_id_len});
    entry.blank4 = ' ';
    return TRAN_RC_OK;
  });
}

int TRAN_SQL_STMT(int tid, int mode, const char* date_str, int date_str_len, const char* time_str,
                  int time_str_len, int kind, const std::int64_t* start, const std::int64_t* end,
                  const char* statement) {
  return Call(kKind<'Q'>.log_flag).in_context(tid, [&](MTR_CXT_VAR& var) {
    return trace_statement(var, mode,
                           {.date_str = {date_str, date_str_len},
                            .time_str = {time_str, time_str_len},
                            .kind = static_cast<std::int16_t>(kind),
                            .start = given_time(start, kind),
                            .end = given_time(end, kind),
                            .text = statement});
  });
}

int TRAN_SET_TIME(int tid) {
  return Call(0).in_context(tid, [](MTR_CXT_VAR& var) {
    store_time(var.ptrc->preset_time, now(var.clock));
    return TRAN_RC_OK;
  });
}

int TRAN_CHECK_SQL_TIME(int tid, std::int64_t elapsed_us) {
  return Call().in_context(tid, [&](MTR_CXT_VAR& var) {
    return load(var.ptrc->sql_limit_us) > elapsed_us ? TRAN_RC_FAILED : TRAN_RC_OK;
  });
}

int TRAN_GET_HASH_CODE(int, const void*, const void*, int, const char* text) {
  return text == nullptr ? 0 : static_cast<int>(get_hash_code(text, std::strlen(text)));
}

int TRAN_SET_DBIO_STS(int tid, int status) {
  return Call().in_context(tid, [&](MTR_CXT_VAR& var) {
    store(var.ptrc->in_dbio, static_cast<std::uint8_t>(status));
    return TRAN_RC_OK;
  });
}

int TRAN_SET_SQLCA_INFO(int tid, std::int64_t sqlcode, const char* message, std::int16_t line) {
  return Call().in_context(tid, [&](MTR_CXT_VAR& var) {
    return set_sqlca_info(var, sqlcode, {message, -1}, line);
  });
}

int TRAN_SET_DBCONN_INFO(int, const char* user, const char* instance) {
  const auto keep = [](char(&place)[11], const char* name) {
    if (name != nullptr) store_text(place, {name, strnlen(name, sizeof place - 1)});
  };
  keep(init_db_user, user);
  keep(init_db_sid, instance);
  return TRAN_RC_OK;
}

int TRAN_SET_FETCH_INFO(int tid, int rows, std::int64_t time_us, std::int16_t line) {
  return Call().in_context(tid, [&](MTR_CXT_VAR& var) {
    PTRC_HASH_ENT& entry = *var.ptrc;
    // Sums of a caller's numbers may wrap.
    const auto add_to = [](std::int32_t& sum, std::int64_t n) {
      store(sum, static_cast<std::int32_t>(static_cast<std::uint32_t>(load(sum)) +
                                           static_cast<std::uint32_t>(n)));
    };
    add_to(entry.fetch_rows, rows);
    add_to(entry.fetch_time, time_us);
    add_to(entry.fetch_cnt, 1);
    store(entry.cur_fetch_rows, rows);
    store(entry.cur_fetch_time_us, static_cast<std::int32_t>(time_us));
    store(entry.sql_line, std::int32_t{line});
    return TRAN_RC_OK;
  });
}

}  // extern "C"
