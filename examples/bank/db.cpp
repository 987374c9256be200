#include "db.h"

#include <unistd.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <variant>

namespace bank {
namespace {

constexpr int kRetryUs = 200;
constexpr int kMostRetries = 25'000;  // five seconds

using Value = std::variant<std::int64_t, std::string_view>;
using OnRow = std::function<void(sqlite3_stmt*)>;
using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

[[noreturn]] void fail(const Database& db, const char* sql) {
  throw DbError(std::string(sqlite3_errmsg(db.handle())) + ": " + sql);
}

Statement prepare(const Database& db, const char* sql) {
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(db.handle(), sql, -1, &prepared, nullptr) != SQLITE_OK) fail(db, sql);
  return {prepared, sqlite3_finalize};
}

int bind(sqlite3_stmt* statement, int place, const Value& value) {
  if (const auto* const number = std::get_if<std::int64_t>(&value))
    return sqlite3_bind_int64(statement, place, *number);
  const auto text = std::get<std::string_view>(value);
  return sqlite3_bind_text(statement, place, text.data(), static_cast<int>(text.size()),
                           SQLITE_STATIC);
}

// Every statement passes here.
void run(const Database& db, const char* sql, std::initializer_list<Value> values = {},
         const OnRow& on_row = {}) {
  const Statement statement = prepare(db, sql);
  int place = 0;
  for (const Value& value : values)
    if (bind(statement.get(), ++place, value) != SQLITE_OK) fail(db, sql);
  int rc = SQLITE_OK;
  while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW)
    if (on_row) on_row(statement.get());
  if (rc != SQLITE_DONE) fail(db, sql);
}

std::int64_t number_of(const Database& db, const char* sql,
                       std::initializer_list<Value> values = {}) {
  std::int64_t number = 0;
  run(db, sql, values, [&](sqlite3_stmt* row) { number = sqlite3_column_int64(row, 0); });
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
  if (sqlite3_open_v2(path.c_str(), &handle_, kFlags, nullptr) != SQLITE_OK) {
    const DbError error(path + ": " + sqlite3_errmsg(handle_));
    sqlite3_close(handle_);
    throw error;
  }
  sqlite3_busy_handler(handle_, wait_for_lock, nullptr);
}

Database::~Database() { sqlite3_close(handle_); }

Transaction::Transaction(Database& db) : db_(db) { run(db_, "BEGIN IMMEDIATE"); }

Transaction::~Transaction() {
  if (open_) sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
  run(db_, "COMMIT");
  open_ = false;
}

void db_create_tables(Database& db) {
  run(db, "PRAGMA journal_mode = WAL");
  run(db,
      "CREATE TABLE IF NOT EXISTS accounts (number TEXT PRIMARY KEY, holder TEXT NOT NULL,"
      " balance INTEGER NOT NULL CHECK (balance >= 0), daily_limit INTEGER NOT NULL,"
      " frozen INTEGER NOT NULL)");
  run(db,
      "CREATE TABLE IF NOT EXISTS transfers (gid TEXT PRIMARY KEY, date TEXT NOT NULL,"
      " from_number TEXT NOT NULL REFERENCES accounts, to_number TEXT NOT NULL REFERENCES accounts,"
      " amount INTEGER NOT NULL CHECK (amount > 0))");
  run(db, "CREATE INDEX IF NOT EXISTS sent ON transfers (from_number, date)");
  run(db,
      "CREATE TABLE IF NOT EXISTS audit (id INTEGER PRIMARY KEY, gid TEXT NOT NULL,"
      " service TEXT NOT NULL, code TEXT NOT NULL, detail TEXT NOT NULL)");
}

void db_insert_account(Database& db, const Account& account) {
  run(db,
      "INSERT INTO accounts (number, holder, balance, daily_limit, frozen) VALUES (?, ?, ?, ?, ?)",
      {account.number, account.holder, account.balance, account.daily_limit,
       std::int64_t{account.frozen}});
}

std::optional<Account> db_select_account(Database& db, std::string_view number) {
  std::optional<Account> account;
  run(db, "SELECT number, holder, balance, daily_limit, frozen FROM accounts WHERE number = ?",
      {number}, [&](sqlite3_stmt* row) {
        account = Account{text_at(row, 0), text_at(row, 1), sqlite3_column_int64(row, 2),
                          sqlite3_column_int64(row, 3), sqlite3_column_int(row, 4) != 0};
      });
  return account;
}

void db_add_to_balance(Database& db, std::string_view number, std::int64_t amount) {
  run(db, "UPDATE accounts SET balance = balance + ? WHERE number = ?", {amount, number});
}

std::int64_t db_sum_sent(Database& db, std::string_view number, std::string_view date) {
  return number_of(
      db, "SELECT COALESCE(SUM(amount), 0) FROM transfers WHERE from_number = ? AND date = ?",
      {number, date});
}

void db_insert_transfer(Database& db, std::string_view gid, std::string_view date,
                        std::string_view from, std::string_view to, std::int64_t amount) {
  run(db,
      "INSERT INTO transfers (gid, date, from_number, to_number, amount) VALUES (?, ?, ?, ?, ?)",
      {gid, date, from, to, amount});
}

void db_insert_audit(Database& db, std::string_view gid, std::string_view service,
                     std::string_view code, std::string_view detail) {
  run(db, "INSERT INTO audit (gid, service, code, detail) VALUES (?, ?, ?, ?)",
      {gid, service, code, detail});
}

std::int64_t db_count_accounts(Database& db) {
  return number_of(db, "SELECT COUNT(*) FROM accounts");
}

std::int64_t db_sum_balances(Database& db) {
  return number_of(db, "SELECT COALESCE(SUM(balance), 0) FROM accounts");
}

}  // namespace bank
