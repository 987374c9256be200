#include "core/sql.h"

#include <algorithm>
#include <cstring>

#include "core/record.h"
#include "core/validate.h"
#include "util/clock.h"
#include "util/encoding_util.h"
#include "util/log_printf.h"
#include "util/message.h"
#include "util/shared_word.h"

namespace varn {
namespace {

constexpr std::size_t kBodyWidth = kCallBody.back().width;
using Body = Message<kBodyWidth>;

// What the shared entry says is read once and made fit for use.
int pending(const PTRC_HASH_ENT& entry) { return std::clamp(load(entry.sql_cnt), 0, kSqlEntries); }
int stored_length(const SqlEntry& sql) {
  return std::clamp<int>(load(sql.stmt_len), 0, kMaxSqlText);
}

int statement_length(const char* text) {
  const int given =
      text == nullptr ? 0
                      : static_cast<int>(strnlen(text, static_cast<std::size_t>(kMaxSqlText) + 1));
  const int kept = hcut(text, given, kMaxSqlText, kEucKr);
  if (kept >= 0) return kept;
  VARN_LOG_LIMITED("(!) vlen5(%d) error", kept);
  return 0;
}

void begin_batch(MTR_CXT_VAR& var, const SvcLevel& level, const Statement& statement) {
  Text head[kHeadPairs];
  head[kPair_date_str] = statement.date_str;
  head[kPair_time_str] = statement.time_str;
  const TimeVal current = now(var.clock);
  put_header(var, var.rec2, kKind<'Q'>, head, Text::of(level.gid),
             local_stamp(var.stamp, current.sec, current.usec));
}

// A list of parameter types is cut at its first comma and closed.
std::string_view printed_name(SqlEntry& sql) {
  char* const end = sql.stmt_func_nm + sizeof sql.stmt_func_nm - 1;
  *end = '\0';
  char* const comma = std::find(sql.stmt_func_nm, end, ',');
  if (comma != end) {
    comma[0] = ')';
    comma[1] = '\0';
  }
  return printable(Text::of(sql.stmt_func_nm), sizeof sql.stmt_func_nm);
}

int piece_length(const char* rest, int remaining, int room) {
  if (room > remaining) return remaining;
  const int kept = hcut(rest, remaining, room, kEucKr);
  if (kept >= 1) return kept;
  VARN_LOG_LIMITED("<!> send_len(%d) length error", kept);
  return room;
}

struct Place {
  int number;  // of the statement, from 1
  int count;   // of the statements kept
};

int send_statement(MTR_CXT_VAR& var, SqlEntry& sql, Place place, std::int64_t elapsed) {
  int rc = TRAN_RC_OK;
  const int length = stored_length(sql);
  int offset = 0;
  for (int piece = 1; offset < length; ++piece) {
    Body body;
    body << place.number << ',' << place.count << ',' << piece << ',';
    if (piece == 1) {
      body << static_cast<std::int32_t>(load(sql.stmt_exec_cnt)) << ',';
      body.seconds(elapsed) << ',' << std::int32_t{load(sql.stmt_kind)} << ',' << printed_name(sql)
                            << ',';
    }
    const int room = static_cast<int>(kBodyWidth - body.view().size());
    const int n = piece_length(sql.stmt_text + offset, length - offset, room);
    body << std::string_view(sql.stmt_text + offset, static_cast<std::size_t>(n));
    offset += n;

    const Text text = body.text();
    put_fields<kCallBody>(var.rec2.view, {&text, 1});
    var.rec2.length = kKind<'Q'>.length();
    rc = tran_logb(var, var.rec2);
  }
  return rc;
}

}  // namespace

int add_statement(MTR_CXT_VAR& var, const SvcLevel& level, const CallEntry& call,
                  const Statement& statement) {
  if (const int rc = trace_validate(var, 'Q', kSqlStmtApi, var.rec2, Text::of(level.svc_id), {});
      rc != 0)
    return rc;
  PTRC_HASH_ENT& entry = *var.ptrc;
  const int length = statement_length(statement.text);
  const auto size = static_cast<std::size_t>(length);
  const int count = pending(entry);
  if (count > 0) {
    SqlEntry& last = entry.sql_ent[count - 1];
    if (load(last.stmt_len) == length && load(last.stmt_kind) == statement.kind) {
      if (size == 0 || std::memcmp(last.stmt_text, statement.text, size) == 0) {
        store_time(last.stmt_end_tv, statement.end);
        store(last.stmt_exec_cnt, load(last.stmt_exec_cnt) + 1);
      }
      return TRAN_RC_OK;
    }
  }
  if (count == kSqlEntries) return TRAN_RC_TOO_MANY_SQL;
  if (count == 0) begin_batch(var, level, statement);

  SqlEntry& sql = entry.sql_ent[count];
  store(sql.stmt_kind, statement.kind);
  store(sql.stmt_len, static_cast<std::int16_t>(length));
  store_time(sql.stmt_start_tv, statement.start);
  store_time(sql.stmt_end_tv, statement.end);
  std::memcpy(sql.stmt_func_nm, call.func_nm, sizeof sql.stmt_func_nm - 1);
  if (size != 0) std::memcpy(sql.stmt_text, statement.text, size);
  sql.stmt_text[size] = '\0';
  store(sql.stmt_exec_cnt, 1U);
  store(entry.sql_cnt, count + 1);
  return TRAN_RC_OK;
}

int flush_statements(MTR_CXT_VAR& var) {
  PTRC_HASH_ENT& entry = *var.ptrc;
  const int count = pending(entry);
  int rc = TRAN_RC_OK;
  for (int i = 0; i < count; ++i) {
    SqlEntry& sql = entry.sql_ent[i];
    const std::int64_t elapsed =
        elapsed_us(load_time(sql.stmt_start_tv), load_time(sql.stmt_end_tv));
    if (elapsed >= load(entry.sql_limit_us)) rc = send_statement(var, sql, {i + 1, count}, elapsed);
  }
  return rc;
}

}  // namespace varn
