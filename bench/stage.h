// What a benchmark plays on: shared objects of its own, this process traced, and a
// reader in a second process.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/reader.h"
#include "collector/objects.h"
#include "collector/settings.h"

namespace varn::bench {

struct TempDir {
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::filesystem::path path;
};

struct PrivateObjects {
  PrivateObjects(const std::string& config, int queues);  // writes their keys into the file
  ~PrivateObjects();
  PrivateObjects(const PrivateObjects&) = delete;
  PrivateObjects& operator=(const PrivateObjects&) = delete;

  CollectorSettings settings;
  SharedObjects shared;
};

class Stage {
 public:
  Stage(int reader_cpu, int queues);  // throws what is a std::exception
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  int msgq_id(int queue = 0) const { return msgq_ids()[static_cast<std::size_t>(queue)]; }
  std::uint32_t failed_sends() const;

  // One run's conditions: how the reader waits, record kinds switched on, how long a call must take
  // to be recorded, and whether whole telegrams are logged.
  void begin(Waiting waiting, std::uint8_t log_flags, std::uint64_t call_limit_us,
             bool telegrams_logged);
  // Waits until the telegrams that the run queued are all in the file; false when some do not come.
  bool end(std::int64_t telegrams_queued);

  // In between, the agent is not started. The start leaves its thread on the reader's processor.
  void stop_agent();
  void start_agent();

  // Fills the first queue, which nobody reads until the next begin().
  void fill();

  void log_telegrams(bool logged);

  const std::filesystem::path& directory() const { return dir_.path; }
  std::int64_t tong_bytes() const;  // of the files of whole telegrams, which lie in the directory
  // Waits until there are so many, or no more come: how many there are.
  std::int64_t wait_for_tong_bytes(std::int64_t bytes) const;

  // Waits until each queue is at most half full.
  void wait_for_room() const;

 private:
  const std::vector<int>& msgq_ids() const { return objects_.shared.msgq_ids; }

  TempDir dir_;
  PrivateObjects objects_;
  const int reader_cpu_;
  const long room_;  // records that a queue holds
  Reader reader_;
  std::int64_t expected_tong_bytes_ = 0;
};

}  // namespace varn::bench
