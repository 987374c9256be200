#include "collector/stats.h"

#include <algorithm>

#include "util/shared_word.h"

namespace varn {
namespace {

void count_end(Stats& stats, const DecodedRecord& record) {
  ++stats.transactions_ended;
  const std::uint64_t elapsed_us = digits_of(field_of(record, kElapsed.name)).value_or(0);
  if (elapsed_us == 0) return;  // an end whose time the caller gave reports none
  const std::string_view svc_id = field_of(record, kSvcId.name);
  auto at = stats.services.find(svc_id);
  if (at == stats.services.end()) {
    if (stats.services.size() >= kMostServices) {
      ++stats.services_left_out;
      return;
    }
    at = stats.services.emplace(svc_id, ServiceTimes{}).first;
  }
  ServiceTimes& times = at->second;
  ++times.count;
  times.total_us += elapsed_us;
  if (elapsed_us > times.longest_us) {
    times.longest_us = elapsed_us;
    times.longest_gid = field_of(record, kGid.name);
  }
}

}  // namespace

void count_record(Stats& stats, int queue, const DecodedRecord& record) {
  ++stats.records;
  if (queue >= 0 && queue < kMaxQueues) ++stats.by_queue[static_cast<std::size_t>(queue)];
  if (record.malformed) {
    ++stats.malformed;
    return;
  }
  if (record.kind == nullptr) {
    ++stats.unknown;
    return;
  }
  // A partial service's record counts as its type's.
  const RecordKind* const kind = record_kind(record.rec_type);
  ++stats.by_kind[static_cast<std::size_t>(kind - kRecordKinds.data())];
  const bool outermost = digits_of(field_of(record, kDepth.name)) == 1;
  if (outermost && record.rec_type == '1') ++stats.transactions_started;
  if (outermost && record.rec_type == '2') count_end(stats, record);
}

std::vector<ServiceRow> slowest_services(const Stats& stats, std::size_t most) {
  std::vector<ServiceRow> rows;
  for (const auto& [svc_id, times] : stats.services) rows.push_back({svc_id, times});
  std::ranges::stable_sort(rows, [](const ServiceRow& a, const ServiceRow& b) {
    return a.times.longest_us > b.times.longest_us;
  });
  if (rows.size() > most) rows.resize(most);
  return rows;
}

FailCounts fail_counts(const TRAN_LOGF_QUE_INFO& info) {
  FailCounts counts;
  for (std::size_t i = 0; i < counts.size(); ++i) counts[i] = load(info.que_fail_cnt[i]);
  return counts;
}

}  // namespace varn
