// What a collection adds up to.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "collector/decode.h"
#include "layout/que_info.h"

namespace varn {

// Response times of a service, in microseconds, of its outermost ends that carry one.
struct ServiceTimes {
  std::uint64_t count = 0;
  std::uint64_t total_us = 0;
  std::uint64_t longest_us = 0;
  std::string longest_gid;  // bytes as sent
};

struct Stats {
  std::uint64_t records = 0;                                 // messages of every sort
  std::array<std::uint64_t, kRecordKinds.size()> by_kind{};  // as kRecordKinds
  std::uint64_t unknown = 0;                                 // of no known type
  std::uint64_t malformed = 0;                               // of another size than a record's
  std::array<std::uint64_t, kMaxQueues> by_queue{};
  std::uint64_t transactions_started = 0;  // outermost services
  std::uint64_t transactions_ended = 0;
  std::map<std::string, ServiceTimes, std::less<>> services;  // by service id, bytes as sent
  std::uint64_t services_left_out = 0;  // ends of services beyond the most that are kept apart
};

inline constexpr std::size_t kMostServices = 10'000;

void count_record(Stats& stats, int queue, const DecodedRecord& record);

struct ServiceRow {
  std::string svc_id;
  ServiceTimes times;
};

// The services with the longest single response times, longest first.
std::vector<ServiceRow> slowest_services(const Stats& stats, std::size_t most);

// que_fail_cnt at one moment; wraps as the shared words do.
using FailCounts = std::array<std::uint32_t, kMaxQueues>;

FailCounts fail_counts(const TRAN_LOGF_QUE_INFO& info);

}  // namespace varn
