#include "db.h"

#include <unistd.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <memory>
#include <variant>

#include "trace.h"

namespace bank {
namespace {

constexpr int kRetryUs = 200;
constexpr int kMostRetries = 25'000;  // five seconds

// What tells the kinds of statements apart in the trace.
enum Kind { kOther, kSelect, kInsert, kUpdate };

constexpr int kNoData = 1403;  // of a query without a row, as the bank's other databases say it

// A statement as SQLite takes it, in UTF-8, and as the trace does, in EUC-KR.
struct SqlText {
  SqlText(Kind sql_kind, const char* sql, int sql_line = __builtin_LINE())
      : kind(sql_kind), text(sql), traced(trace::to_euc_kr(sql)), line(sql_line) {}

  Kind kind;
  const char* text;
  std::string traced;
  int line;
};

using Value = std::variant<std::int64_t, std::string_view>;
using OnRow = std::function<void(sqlite3_stmt*)>;
using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

int bind(sqlite3_stmt* statement, int place, const Value& value) {
  if (const auto* const number = std::get_if<std::int64_t>(&value))
    return sqlite3_bind_int64(statement, place, *number);
  const auto text = std::get<std::string_view>(value);
  return sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()),
                           SQLITE_STATIC);
}

// The rows that there were, or nothing where SQLite has an error to tell of.
std::optional<int> execute(sqlite3* handle, const SqlText& sql, std::initializer_list<Value> values,
                           const OnRow& on_row) {
  const varn::Sql traced(sql.traced.c_str(), sql.kind);
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(handle, sql.text, -1, &prepared, nullptr) != SQLITE_OK) return {};
  const Statement statement(prepared, sqlite3_finalize);
  int place = 0;
  for (const Value& value : values)
    if (bind(prepared, ++place, value) != SQLITE_OK) return {};
  int rows = 0;
  int rc = SQLITE_OK;
  for (; (rc = sqlite3_step(prepared)) == SQLITE_ROW; ++rows)
    if (on_row) on_row(prepared);
  if (rc != SQLITE_DONE) return {};
  return rows;
}

[[noreturn]] void fail(varn::DbCall& call, sqlite3* handle, const SqlText& sql) {
  const DbError error(sqlite3_errcode(handle), sqlite3_errmsg(handle));
  call.set_sqlca(-error.code, error.what(), sql.line);
  call.set_rc(-error.code);
  throw error;
}

// Every statement but a rollback passes here.
void run(varn::DbCall& call, const Database& db, const SqlText& sql,
         std::initializer_list<Value> values = {}, const OnRow& on_row = {}) {
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  const std::optional<int> rows = execute(db.handle(), sql, values, on_row);
  if (!rows) fail(call, db.handle(), sql);
  call.set_sqlca(sql.kind == kSelect && *rows == 0 ? kNoData : 0, {}, sql.line);
  if (sql.kind != kSelect) return;
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
  call.set_fetch(*rows, took.count(), sql.line);
}

std::int64_t number_of(varn::DbCall& call, const Database& db, const SqlText& sql,
                       std::initializer_list<Value> values = {}) {
  std::int64_t number = 0;
  run(call, db, sql, values, [&](sqlite3_stmt* row) { number = sqlite3_column_int64(row, 0); });
  return number;
}

// SQLite's own handler pauses for up to 100 ms, in which the other workers take the lock many
// times.
int wait_for_lock(void*, int retries) {
  usleep(kRetryUs);
  return retries < kMostRetries;
}

std::string text_at(sqlite3_stmt* row, int column) {
  const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
  return text == nullptr ? std::string() : std::string(text);
}

}  // namespace

Database::Database(const std::string& path) {
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (const int rc = sqlite3_open_v2(path.c_str(), &handle_, kFlags, nullptr); rc != SQLITE_OK) {
    const DbError error(rc, path + ": " + sqlite3_errmsg(handle_));
    sqlite3_close(handle_);
    throw error;
  }
  sqlite3_busy_handler(handle_, wait_for_lock, nullptr);
}

Database::~Database() { sqlite3_close(handle_); }

Transaction::Transaction(Database& db) : db_(db) {
  static const SqlText kSql(kOther, "BEGIN IMMEDIATE");
  varn::DbCall call("db_begin");
  run(call, db_, kSql);
}

Transaction::~Transaction() {
  if (open_) rollback();
}

void Transaction::commit() {
  static const SqlText kSql(kOther, "COMMIT");
  varn::DbCall call("db_commit");
  run(call, db_, kSql);
  open_ = false;
}

// Without run(), which throws.
void Transaction::rollback() {
  constexpr char kSql[] = "ROLLBACK";
  varn::DbCall call("db_rollback");
  const varn::Sql traced(kSql, kOther);
  call.set_rc(-sqlite3_exec(db_.handle(), kSql, nullptr, nullptr, nullptr));
}

void db_create_tables(Database& db) {
  static const SqlText kSqls[] = {
      {kOther, "PRAGMA journal_mode = WAL"},
      {kOther,
       "CREATE TABLE IF NOT EXISTS accounts (number TEXT PRIMARY KEY, holder TEXT NOT NULL,"
       " balance INTEGER NOT NULL CHECK (balance >= 0), daily_limit INTEGER NOT NULL,"
       " frozen INTEGER NOT NULL)"},
      {kOther,
       "CREATE TABLE IF NOT EXISTS transfers (gid TEXT PRIMARY KEY, date TEXT NOT NULL,"
       " from_number TEXT NOT NULL REFERENCES accounts,"
       " to_number TEXT NOT NULL REFERENCES accounts,"
       " amount INTEGER NOT NULL CHECK (amount > 0))"},
      {kOther, "CREATE INDEX IF NOT EXISTS sent ON transfers (from_number, date)"},
      {kOther,
       "CREATE TABLE IF NOT EXISTS audit (id INTEGER PRIMARY KEY, gid TEXT NOT NULL,"
       " service TEXT NOT NULL, code TEXT NOT NULL, detail TEXT NOT NULL)"},
  };
  varn::DbCall call(__func__);
  for (const SqlText& sql : kSqls) run(call, db, sql);
}

void db_insert_account(Database& db, const Account& account) {
  static const SqlText kSql(
      kInsert,
      "INSERT INTO accounts (number, holder, balance, daily_limit, frozen) VALUES (?, ?, ?, ?, ?)");
  varn::DbCall call(__func__);
  run(call, db, kSql,
      {account.number, account.holder, account.balance, account.daily_limit,
       std::int64_t{account.frozen}});
}

std::optional<Account> db_select_account(Database& db, std::string_view number) {
  static const SqlText kSql(
      kSelect,
      "SELECT number, holder, balance, daily_limit, frozen FROM accounts WHERE number = ?");
  varn::DbCall call(__func__);
  std::optional<Account> account;
  run(call, db, kSql, {number}, [&](sqlite3_stmt* row) {
    account = Account{text_at(row, 0), text_at(row, 1), sqlite3_column_int64(row, 2),
                      sqlite3_column_int64(row, 3), sqlite3_column_int(row, 4) != 0};
  });
  return account;
}

void db_add_to_balance(Database& db, std::string_view number, std::int64_t amount) {
  static const SqlText kSql(kUpdate, "UPDATE accounts SET balance = balance + ? WHERE number = ?");
  varn::DbCall call(__func__);
  run(call, db, kSql, {amount, number});
}

std::int64_t db_sum_sent(Database& db, std::string_view number, std::string_view date) {
  static const SqlText kSql(
      kSelect,
      "SELECT /* 이체한도 관리: 출금계좌의 금일 이체 누계를 구한다 */"
      " COALESCE(SUM(이체내역.amount), 0) AS 금일이체금액"
      ", COUNT(*) AS 금일이체건수"
      ", COALESCE(MAX(이체내역.amount), 0) AS 금일최고이체금액"
      " FROM accounts AS 출금계좌 /* 계좌 원장 */"
      " JOIN transfers AS 이체내역 /* 완료된 이체만 있고, 거절된 이체는 감사기록에 남는다 */"
      " ON 이체내역.from_number = 출금계좌.number"
      " WHERE 출금계좌.number = ? /* 출금 계좌번호 */"
      " AND 이체내역.date = ? /* 거래일자(YYYYMMDD), 영업점 마감과 상관없이 자정에 바뀐다 */"
      " AND 출금계좌.frozen = 0 /* 거래정지 계좌는 제외 */");
  varn::DbCall call(__func__);
  call.sql_id("ledger.limit.sum_sent");
  return number_of(call, db, kSql, {number, date});
}

void db_insert_transfer(Database& db, std::string_view gid, std::string_view date,
                        std::string_view from, std::string_view to, std::int64_t amount) {
  static const SqlText kSql(
      kInsert,
      "INSERT INTO transfers (gid, date, from_number, to_number, amount) VALUES (?, ?, ?, ?, ?)");
  varn::DbCall call(__func__);
  run(call, db, kSql, {gid, date, from, to, amount});
}

void db_insert_audit(Database& db, std::string_view gid, std::string_view service,
                     std::string_view code, std::string_view detail) {
  static const SqlText kSql(kInsert,
                            "INSERT INTO audit (gid, service, code, detail) VALUES (?, ?, ?, ?)");
  varn::DbCall call(__func__);
  run(call, db, kSql, {gid, service, code, detail});
}

std::int64_t db_count_accounts(Database& db) {
  static const SqlText kSql(kSelect, "SELECT COUNT(*) FROM accounts");
  varn::DbCall call(__func__);
  return number_of(call, db, kSql);
}

std::int64_t db_sum_balances(Database& db) {
  static const SqlText kSql(kSelect, "SELECT COALESCE(SUM(balance), 0) FROM accounts");
  varn::DbCall call(__func__);
  return number_of(call, db, kSql);
}

}  // namespace bank
