// varn tong: prints and checks files of whole telegrams, and pairs requests with their responses.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "collector/describe.h"
#include "collector/tong_file.h"
#include "tools/varn/text_line.h"
#include "tools/varn/verbs.h"

namespace varn {
namespace {

constexpr std::size_t kMostOpen = 100'000;
constexpr std::size_t kGidWidth = 30;
constexpr std::size_t kHostWidth = 15;

struct TongOptions {
  std::vector<std::string> paths;
  std::string format = "text";  // or "json"
  std::string gid;              // what the GIDs to show begin with
  bool show = false;            // the telegrams, too
  bool quiet = false;           // no records
};

// Requests that wait for their responses. Those of one GID nest as services do: the last one is
// answered first.
class OpenRequests {
 public:
  void add(std::string_view gid, std::int64_t time_us) {
    if (by_age_.size() == kMostOpen) give_up_oldest();
    const auto at = time_us_.emplace(Request(gid, next_), time_us).first;
    by_age_.emplace(next_++, at);
  }

  // The time of the request that a response answers.
  std::optional<std::int64_t> answered_by(std::string_view gid) {
    auto request = time_us_.upper_bound(Request(gid, next_));
    if (request == time_us_.begin() || (--request)->first.first != gid) return std::nullopt;
    const std::int64_t time_us = request->second;
    by_age_.erase(request->first.second);
    time_us_.erase(request);
    return time_us;
  }

  std::uint64_t given_up() const { return given_up_; }

 private:
  using Request = std::pair<std::string, std::uint64_t>;  // GID and number

  void give_up_oldest() {
    time_us_.erase(by_age_.begin()->second);
    by_age_.erase(by_age_.begin());
    ++given_up_;
  }

  std::map<Request, std::int64_t> time_us_;
  std::map<std::uint64_t, std::map<Request, std::int64_t>::iterator> by_age_;
  std::uint64_t next_ = 0;
  std::uint64_t given_up_ = 0;
};

struct Counts {
  std::uint64_t files = 0;
  std::uint64_t not_read = 0;  // to their ends
  std::uint64_t records = 0;
  std::uint64_t requests = 0;
  std::uint64_t responses = 0;
  std::uint64_t bytes = 0;
  std::uint64_t pairs = 0;
  std::int64_t shortest_us = 0;
  std::int64_t longest_us = 0;
  double total_us = 0;  // may be more than 64 bits hold where a file's times are made up
  std::uint64_t damaged = 0;
};

const char* direction_text(char direction) {
  return direction == 'S' ? "request" : direction == 'F' ? "response" : "other";
}

std::string date_time_text(std::int64_t time_us) {
  const std::time_t seconds = time_us / 1'000'000;
  std::tm local = {};
  localtime_r(&seconds, &local);
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%F %T", &local);
  std::snprintf(text + length, sizeof text - length, ".%06d",
                static_cast<int>(time_us % 1'000'000));
  return text;
}

void print(const std::string& line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
}

// File names are bytes of any kind.
void print(const nlohmann::ordered_json& line) {
  print(line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

class Reading {
 public:
  explicit Reading(const TongOptions& options) : options_(options) {}

  void read(const std::string& path) {
    ++counts_.files;
    std::string error;
    if (read_tong_file(path,
                       {.on_record = [&](const TongRecord& record) { take(path, record); },
                        .on_damage = [&](const TongDamage& damage) { tell(path, damage); }},
                       error))
      return;
    ++counts_.not_read;
    tell(error);
  }

  bool all_whole() const { return counts_.not_read == 0 && counts_.damaged == 0; }

  void print_summary() const;

 private:
  void take(const std::string& path, const TongRecord& record) {
    if (!record.gid.starts_with(options_.gid)) return;
    const std::optional<std::int64_t> elapsed_us = count(record);
    if (options_.quiet) return;
    if (options_.format == "json") return print_json(path, record, elapsed_us);
    print_text(record, elapsed_us);
  }

  // What a response took, if its request is known.
  std::optional<std::int64_t> count(const TongRecord& record) {
    ++counts_.records;
    counts_.bytes += record.telegram.size();
    if (record.direction == 'S') {
      ++counts_.requests;
      open_.add(record.gid, record.time_us);
    }
    if (record.direction != 'F') return std::nullopt;
    ++counts_.responses;
    const std::optional<std::int64_t> since = open_.answered_by(record.gid);
    if (!since) return std::nullopt;
    const std::int64_t elapsed_us = record.time_us - *since;
    const bool first = counts_.pairs++ == 0;
    counts_.shortest_us = first ? elapsed_us : std::min(counts_.shortest_us, elapsed_us);
    counts_.longest_us = first ? elapsed_us : std::max(counts_.longest_us, elapsed_us);
    counts_.total_us += static_cast<double>(elapsed_us);
    return elapsed_us;
  }

  void print_text(const TongRecord& record, std::optional<std::int64_t> elapsed_us) const {
    char length[16];
    std::snprintf(length, sizeof length, "%6zu", record.telegram.size());
    const std::string direction = direction_text(record.direction);
    const std::string gid = utf8_from_uhc(record.gid);
    const std::string host_name = utf8_from_uhc(record.host_name);
    std::string line = date_time_text(record.time_us) + ' ' + direction + padding(direction, 8) +
                       ' ' + gid + padding(gid, kGidWidth) + ' ' + host_name +
                       padding(host_name, kHostWidth) + ' ' + length;
    if (elapsed_us) {
      const std::string elapsed = milliseconds_text(*elapsed_us) + "ms";
      line += ' ' + padding(elapsed, 12) + elapsed;
    }
    if (options_.show) line += "\n  " + utf8_from_uhc(record.telegram);
    print(line);
  }

  void print_json(const std::string& path, const TongRecord& record,
                  std::optional<std::int64_t> elapsed_us) const {
    nlohmann::ordered_json line = {{"kind", "record"},
                                   {"file", path},
                                   {"offset", record.offset},
                                   {"time", date_time_text(record.time_us)},
                                   {"time_us", record.time_us},
                                   {"direction", direction_text(record.direction)},
                                   {"gid", utf8_from_uhc(record.gid)},
                                   {"host_name", utf8_from_uhc(record.host_name)},
                                   {"length", record.telegram.size()}};
    if (elapsed_us) line["elapsed_us"] = *elapsed_us;
    if (options_.show) line["telegram"] = utf8_from_uhc(record.telegram);
    print(line);
  }

  void tell(const std::string& path, const TongDamage& damage) {
    ++counts_.damaged;
    tell(path + ": " + (damage.is_tail ? "torn last record" : "damaged") + " at offset " +
         std::to_string(damage.offset) + ", " + std::to_string(damage.size) + " bytes");
    if (options_.format == "json")
      print(nlohmann::ordered_json{{"kind", "damage"},
                                   {"file", path},
                                   {"offset", damage.offset},
                                   {"size", damage.size},
                                   {"is_tail", damage.is_tail}});
  }

  // Behind the records that come before it.
  static void tell(const std::string& fault) {
    std::fflush(stdout);
    std::fprintf(stderr, "varn: %s\n", fault.c_str());
  }

  const TongOptions& options_;
  OpenRequests open_;
  Counts counts_;
};

void Reading::print_summary() const {
  std::FILE* const stream = options_.format == "json" ? stderr : stdout;
  const auto row = [stream](const char* label, const std::string& value) {
    std::fprintf(stream, "%-26s%14s\n", label, value.c_str());
  };
  const auto count = [&row](const char* label, std::uint64_t number) {
    row(label, std::to_string(number));
  };
  std::fflush(stdout);
  std::fprintf(stream, "---- summary ----\n");
  count("files", counts_.files);
  if (counts_.not_read > 0) count("files that cannot be read", counts_.not_read);
  count("records", counts_.records);
  count("requests", counts_.requests);
  count("responses", counts_.responses);
  count("pairs", counts_.pairs);
  count("unanswered requests", counts_.requests - counts_.pairs);
  if (open_.given_up() > 0) count("  not waited for to the end", open_.given_up());
  count("responses without request", counts_.responses - counts_.pairs);
  count("bytes of telegrams", counts_.bytes);
  if (counts_.pairs > 0) {
    row("shortest ms", milliseconds_text(counts_.shortest_us));
    row("average ms", milliseconds_text(static_cast<std::int64_t>(
                          counts_.total_us / static_cast<double>(counts_.pairs))));
    row("longest ms", milliseconds_text(counts_.longest_us));
  }
  count("damaged places", counts_.damaged);
}

int tong(const TongOptions& options) {
  Reading reading(options);
  for (const std::string& path : options.paths) reading.read(path);
  reading.print_summary();
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
    throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
  return reading.all_whole() ? 0 : kExitFailed;
}

}  // namespace

void add_tong(CLI::App& app, int& status) {
  const auto options = std::make_shared<TongOptions>();
  CLI::App* const verb =
      app.add_subcommand("tong", "Prints and checks files of whole telegrams:  varn tong FILE...");
  verb->footer(
      "Beside a response stands the time since its request: the nearest one before it with the\n"
      "same GID that has no response yet. Several files are read as one, in the order given. What\n"
      "is no record is skipped and told with its place. The exit status is 0 when all files are\n"
      "whole, 1 when one is damaged or cannot be read.");
  verb->add_option("FILE", options->paths, "tong_log_DATE_NAME_PID.dat of TONG_LOG_HOME")
      ->required();
  verb->add_option("--format", options->format, "A line for each record, of text or of JSON")
      ->check(CLI::IsMember({"text", "json"}))
      ->capture_default_str();
  verb->add_option("--gid", options->gid, "Only records whose GID begins so")->type_name("TEXT");
  verb->add_flag("--show", options->show, "The telegrams themselves, too");
  verb->add_flag("-q,--quiet", options->quiet, "Only the summary and what is damaged");
  verb->callback([options, &status] { status = tong(*options); });
}

}  // namespace varn
