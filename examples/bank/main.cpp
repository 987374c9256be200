// A bank's transfer service: workers take requests from a queue and book them in a SQLite file.
#include <CLI/CLI.hpp>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "db.h"
#include "request.h"
#include "service.h"
#include "varn/tran.hpp"
#include "workload.h"

namespace {

constexpr std::size_t kQueueCapacity = 64;

struct Options {
  int requests = 300;
  int rate = 300;  // requests a second; 0: no pause between them
  int workers = 4;
  std::string database;
};

struct Counts {
  int taken = 0;  // by the one thread that fills the queue
  std::atomic<int> transferred{0};
  std::atomic<int> refused{0};
  std::atomic<int> failed{0};
};

// Where the database lies: where the user said, or in a directory that goes when the run is over.
class DatabasePlace {
 public:
  explicit DatabasePlace(const std::string& given) : path_(given) {
    if (!path_.empty()) return;
    std::string directory = std::filesystem::temp_directory_path() / "bank-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr)
      throw std::filesystem::filesystem_error("mkdtemp", directory,
                                              std::error_code(errno, std::generic_category()));
    temporary_ = directory;
    path_ = temporary_ / "ledger.db";
  }
  ~DatabasePlace() {
    std::error_code ignored;
    if (!temporary_.empty()) std::filesystem::remove_all(temporary_, ignored);
  }
  DatabasePlace(const DatabasePlace&) = delete;
  DatabasePlace& operator=(const DatabasePlace&) = delete;

  std::string path() const { return path_; }

 private:
  std::filesystem::path path_;
  std::filesystem::path temporary_;
};

void open_accounts(bank::Database& db, const std::vector<bank::Account>& accounts) {
  bank::db_create_tables(db);
  bank::Transaction transaction(db);
  if (bank::db_count_accounts(db) == 0)
    for (const bank::Account& account : accounts) bank::db_insert_account(db, account);
  transaction.commit();
}

void serve(bank::Database& db, bank::RequestQueue& queue, Counts& counts) {
  while (const auto request = queue.pop()) {
    const bank::Outcome outcome = bank::transfer(db, *request);
    ++(outcome.done()          ? counts.transferred
       : outcome.result == '1' ? counts.refused
                               : counts.failed);
  }
}

volatile std::sig_atomic_t stop_requested = 0;

// Told to stop, the bank takes no more requests and finishes those it has taken.
void stop_on_signals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { stop_requested = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

struct Closing {
  bank::RequestQueue& queue;
  ~Closing() { queue.close(); }
};

void serve_all(const Options& options, const std::string& path,
               const std::vector<bank::Account>& accounts, Counts& counts) {
  bank::RequestQueue queue(kQueueCapacity);
  std::vector<std::unique_ptr<bank::Database>> connections;
  connections.reserve(static_cast<std::size_t>(options.workers));
  for (int i = 0; i < options.workers; ++i)
    connections.push_back(std::make_unique<bank::Database>(path));
  std::vector<std::jthread> workers;
  workers.reserve(connections.size());
  const Closing closing{queue};  // before the workers are joined, however this ends
  for (const auto& connection : connections)
    workers.emplace_back([&] { serve(*connection, queue, counts); });
  bank::Workload workload(accounts);
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < options.requests && stop_requested == 0; ++i) {
    if (options.rate > 0)
      std::this_thread::sleep_until(begin +
                                    std::chrono::microseconds(1'000'000) * i / options.rate);
    queue.push(workload.next());
    ++counts.taken;
  }
}

int run(const Options& options) {
  const DatabasePlace place(options.database);
  const auto accounts = bank::sample_accounts();
  bank::Database db(place.path());
  open_accounts(db, accounts);

  const std::int64_t opening = bank::db_sum_balances(db);
  Counts counts;
  serve_all(options, place.path(), accounts, counts);
  const std::int64_t closing = bank::db_sum_balances(db);

  std::printf("bank: %d requests, %d transferred, %d refused, %d failed; total balance %s (%lld)\n",
              counts.taken, counts.transferred.load(), counts.refused.load(), counts.failed.load(),
              opening == closing ? "unchanged" : "CHANGED", static_cast<long long>(closing));
  return opening == closing && counts.failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

// A bank that cannot be traced is still open for business.
struct Tracing {
  Tracing() {
    setenv("VARN_CONSOLE", "off", 0);  // standard output is for what the bank has to say
    TRAN_SET_DBCONN_INFO(varn::kCallingThread, "BANKAPP", "LEDGER");
    if (const int rc = TRAN_INIT(); rc != TRAN_RC_OK)
      std::fprintf(stderr, "bank: not traced, TRAN_INIT returned %d\n", rc);
  }
  ~Tracing() { TRAN_DONE(); }
  Tracing(const Tracing&) = delete;
  Tracing& operator=(const Tracing&) = delete;
};

int parse_and_run(int argc, char** argv) {
  Options options;
  CLI::App app("Serves transfers between the accounts of a bank.");
  app.add_option("-n,--requests", options.requests, "Transfers to serve")
      ->capture_default_str()
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("-r,--rate", options.rate, "Transfers that arrive in a second; 0: no pause")
      ->capture_default_str()
      ->check(CLI::Range(0, 1'000'000));
  app.add_option("-w,--workers", options.workers, "Threads that serve them")
      ->capture_default_str()
      ->check(CLI::Range(1, 64));
  app.add_option("-d,--database", options.database,
                 "SQLite file; a temporary one, removed at the end, when not given");
  CLI11_PARSE(app, argc, argv);

  stop_on_signals();
  const Tracing tracing;
  return run(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return parse_and_run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bank: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
