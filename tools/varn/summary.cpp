#include "tools/varn/summary.h"

#include <initializer_list>

#include "collector/decode.h"
#include "collector/describe.h"
#include "tools/varn/text_line.h"

namespace varn {
namespace {

constexpr std::size_t kMostRows = 10;
constexpr std::size_t kLabelWidth = 20;
constexpr std::size_t kCellWidth = 14;

// A label, cells set right under one another, and what follows them.
std::string row(const std::string& label, std::initializer_list<std::string> cells,
                const std::string& rest = {}) {
  std::string line = label + padding(label, kLabelWidth);
  for (const std::string& cell : cells) line += padding(cell, kCellWidth) + cell;
  return line + rest + '\n';
}

std::string text_of(std::uint64_t number) { return std::to_string(number); }

std::string kinds_text(const Stats& stats) {
  std::string text = row("records", {text_of(stats.records)});
  for (std::size_t i = 0; i < kRecordKinds.size(); ++i)
    if (stats.by_kind[i] > 0)
      text += row("  " + std::string(kRecordKinds[i].name), {text_of(stats.by_kind[i])});
  if (stats.unknown > 0) text += row("  of unknown type", {text_of(stats.unknown)});
  if (stats.malformed > 0) text += row("  malformed", {text_of(stats.malformed)});
  return text;
}

std::string queues_text(const Stats& stats, std::size_t queues, const FailCounts& at_start,
                        const FailCounts& at_end) {
  std::string text = row("queues", {"records", "failed sends", "in total"});
  std::uint64_t all_failed = 0;
  std::uint64_t all_total = 0;
  for (std::size_t i = 0; i < at_end.size(); ++i) {
    const std::uint32_t failed = at_end[i] - at_start[i];
    all_failed += failed;
    all_total += at_end[i];
    if (i < queues || at_end[i] > 0)
      text += row("  queue " + std::to_string(i),
                  {text_of(stats.by_queue[i]), text_of(failed), text_of(at_end[i])});
  }
  text += row("failed sends", {"", text_of(all_failed), text_of(all_total)});
  if (all_failed > 0)
    text += "  those records are lost: their queue was full, or gone, when they were sent\n";
  return text;
}

std::string services_text(const Stats& stats) {
  const std::vector<ServiceRow> rows = slowest_services(stats, kMostRows);
  if (rows.empty()) return {};
  std::string text =
      row("slowest services", {"ended", "longest ms", "average ms"}, "  GID of the longest");
  for (const auto& [svc_id, times] : rows)
    text +=
        row("  " + utf8_from_uhc(svc_id),
            {text_of(times.count), milliseconds_text(static_cast<std::int64_t>(times.longest_us)),
             milliseconds_text(static_cast<std::int64_t>(times.total_us / times.count))},
            "  " + utf8_from_uhc(times.longest_gid));
  if (stats.services_left_out > 0) text += row("  others", {text_of(stats.services_left_out)});
  return text;
}

}  // namespace

std::string summary_text(const Stats& stats, std::size_t queues, const FailCounts& fails_at_start,
                         const FailCounts& fails_at_end) {
  return "---- summary ----\n" + kinds_text(stats) +
         row("transactions", {text_of(stats.transactions_ended)},
             " ended, " + text_of(stats.transactions_started) + " started") +
         queues_text(stats, queues, fails_at_start, fails_at_end) + services_text(stats);
}

}  // namespace varn
