// What a benchmark plays on: shared objects of its own with one queue, this process traced, and a
// reader in a second process.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

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
  explicit PrivateObjects(const std::string& config);  // writes their keys into the file
  ~PrivateObjects();
  PrivateObjects(const PrivateObjects&) = delete;
  PrivateObjects& operator=(const PrivateObjects&) = delete;

  int msgq_id() const { return shared.msgq_ids.front(); }

  CollectorSettings settings;
  SharedObjects shared;
};

class Stage {
 public:
  explicit Stage(int reader_cpu);  // throws what is a std::exception
  ~Stage();
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  int msgq_id() const { return objects_.msgq_id(); }
  std::uint32_t failed_sends() const;

  // One run's conditions: how the reader waits, record kinds switched on, and how long a call must
  // take to be recorded.
  void begin(Waiting waiting, std::uint8_t log_flags, std::uint64_t call_limit_us);
  void end();

  // Waits until the queue is at most half full.
  void wait_for_room() const;

 private:
  TempDir dir_;
  PrivateObjects objects_;
  const long room_;  // records that the queue holds
  Reader reader_;
};

}  // namespace varn::bench
