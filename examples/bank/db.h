// The ledger's database. Every statement the bank runs is one of the db_ functions below or of a
// transaction, and is traced: under the configuration that `varn init` writes, a name that begins
// with "db" makes a call a database call.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace bank {

struct Account {
  std::string number;
  std::string holder;  // UTF-8
  std::int64_t balance;
  std::int64_t daily_limit;  // of what may be sent in a day
  bool frozen;
};

struct DbError : std::runtime_error {
  DbError(int error_code, const std::string& message)
      : std::runtime_error(message), code(error_code) {}

  // What was to be written breaks a rule of its table.
  bool is_violation() const { return code == SQLITE_CONSTRAINT; }

  int code;  // SQLite's
};

// A connection; each worker has its own. Waits a bounded time for another connection's lock.
class Database {
 public:
  explicit Database(const std::string& path);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  sqlite3* handle() const { return handle_; }

 private:
  sqlite3* handle_ = nullptr;
};

// Takes the write lock at once, so that what is read inside still holds when it is written back;
// rolled back unless committed.
class Transaction {
 public:
  explicit Transaction(Database& db);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit();

 private:
  void rollback();

  Database& db_;
  bool open_ = true;
};

// All of these throw DbError.
void db_create_tables(Database& db);
void db_insert_account(Database& db, const Account& account);
std::optional<Account> db_select_account(Database& db, std::string_view number);
// A violation where the balance would fall below zero.
void db_add_to_balance(Database& db, std::string_view number, std::int64_t amount);
std::int64_t db_sum_sent(Database& db, std::string_view number, std::string_view date);
void db_insert_transfer(Database& db, std::string_view gid, std::string_view date,
                        std::string_view from, std::string_view to, std::int64_t amount);
void db_insert_audit(Database& db, std::string_view gid, std::string_view service,
                     std::string_view code, std::string_view detail);
std::int64_t db_count_accounts(Database& db);
std::int64_t db_sum_balances(Database& db);

}  // namespace bank
