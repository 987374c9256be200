#include "bench/stage.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "bench/calls.h"
#include "bench/cpus.h"
#include "bench/telegram.h"
#include "layout/config_keys.h"
#include "util/msgq.h"
#include "util/shared_word.h"
#include "varn/tran.h"

namespace varn::bench {
namespace {

using Clock = std::chrono::steady_clock;

// Two threads may each send a batch after they found the queue half full.
constexpr long kLeastRoom = 1024;

// The writer looks at its queue three times a second.
constexpr std::chrono::seconds kLongestStandstill{5};

void write_config(const std::string& path, const ConfigValues& values) {
  std::ofstream file(path);
  file << config_text(values) << std::flush;
  if (!file) throw std::runtime_error("cannot write " + path);
}

}  // namespace

TempDir::TempDir() {
  std::string name = std::filesystem::temp_directory_path() / "varn-bench-XXXXXX";
  if (mkdtemp(name.data()) == nullptr)
    throw std::system_error(errno, std::generic_category(), "no temporary directory");
  path = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

PrivateObjects::PrivateObjects(const std::string& config, int queues) {
  ConfigValues values{{kQueCnt.key, std::to_string(queues)},
                      {kMaxQueCnt.key, std::to_string(queues)},
                      {kTongLogHome.key, std::filesystem::path(config).parent_path()},
                      {kCallTrcDepth.key, "51"},
                      {kInfiniteLoopBaseCnt.key, "2000000000"}};
  write_config(config, values);
  std::string error;
  if (!read_settings(config, settings, error) || !create_private_objects(settings, shared, error))
    throw std::runtime_error(error);
  values[kQueInfoShmKey.key] = std::to_string(settings.que_info_shmkey);
  values[kSvcHashTblShmKey.key] = std::to_string(settings.svc_hash_tbl_shmkey);
  values[kPtrcHashTblShmKey.key] = std::to_string(settings.ptrc_hash_tbl_shmkey);
  values[kSvcHashTblSemKey.key] = std::to_string(settings.svc_hash_tbl_semkey);
  values[kPtrcHashTblSemKey.key] = std::to_string(settings.ptrc_hash_tbl_semkey);
  values[kTranLogfMsgqKey.key] = std::to_string(settings.tran_logf_msgqkey);
  write_config(config, values);
}

PrivateObjects::~PrivateObjects() {
  detach_objects(shared);
  Removed removed;
  std::string error;
  if (!remove_objects(settings, removed, error))
    std::fprintf(stderr, "varn_bench: %s\n", error.c_str());
}

Stage::Stage(int reader_cpu, int queues)
    : objects_(dir_.path / "varn.cfg", queues),
      reader_cpu_(reader_cpu),
      room_(queue_records(msgq_id())),
      reader_(msgq_ids(), reader_cpu) {
  if (room_ < kLeastRoom)
    throw std::runtime_error("the queue holds only " + std::to_string(room_) +
                             " records; at least " + std::to_string(kLeastRoom) +
                             " are needed: raise kernel.msgmnb");
  setenv("TRAN_HOME", dir_.path.c_str(), 1);
  setenv("TRAN_AGT_HOME", dir_.path.c_str(), 1);
  setenv("TRAN_AGT_CFG_FILE", objects_.settings.path.c_str(), 1);
  setenv("VARN_THREAD_ID", "kernel", 1);
  setenv("VARN_CONSOLE", "off", 1);
  start_agent();
}

Stage::~Stage() { TRAN_DONE(); }

std::uint32_t Stage::failed_sends() const {
  std::uint32_t failed = 0;
  for (const std::uint32_t& count : objects_.shared.que_info->que_fail_cnt) failed += load(count);
  return failed;
}

void Stage::stop_agent() {
  if (TRAN_DONE() != TRAN_RC_OK) throw std::runtime_error("TRAN_DONE failed");
}

void Stage::start_agent() {
  run_on(reader_cpu_);  // the writer of whole telegrams, which the start creates, stays there
  if (const int rc = TRAN_INIT(); rc != TRAN_RC_OK)
    throw std::runtime_error("TRAN_INIT returned " + std::to_string(rc));
}

void Stage::fill() {
  reader_.stop();
  while (bare_send(msgq_id()) == 0) {
  }
}

void Stage::log_telegrams(bool logged) {
  store(objects_.shared.que_info->tong_log_flag, logged ? '1' : '0');
}

void Stage::begin(Waiting waiting, std::uint8_t log_flags, std::uint64_t call_limit_us,
                  bool telegrams_logged) {
  log_telegrams(telegrams_logged);
  store(objects_.shared.que_info->call_trc_limit, call_limit_us);
  store(objects_.shared.que_info->log_flag_set, log_flags);
  reader_.start(waiting);
}

bool Stage::end(std::int64_t telegrams_queued) {
  reader_.stop();
  expected_tong_bytes_ += telegrams_queued * static_cast<std::int64_t>(kTelegramRecord);
  const std::int64_t bytes = wait_for_tong_bytes(expected_tong_bytes_);
  return std::exchange(expected_tong_bytes_, bytes) == bytes;
}

std::int64_t Stage::tong_bytes() const {
  std::int64_t bytes = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path))
    if (entry.path().filename().string().starts_with("tong_log_"))
      bytes += static_cast<std::int64_t>(entry.file_size());
  return bytes;
}

std::int64_t Stage::wait_for_tong_bytes(std::int64_t bytes) const {
  std::int64_t there = tong_bytes();
  for (auto grown = Clock::now(); there < bytes && Clock::now() - grown < kLongestStandstill;) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    const std::int64_t before = std::exchange(there, tong_bytes());
    if (there != before) grown = Clock::now();
  }
  return there;
}

void Stage::wait_for_room() const {
  for (const int id : msgq_ids())
    while (get_msgq_num(id) > room_ / 2) std::this_thread::sleep_for(std::chrono::microseconds(20));
}

}  // namespace varn::bench
