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

#include "layout/config_keys.h"
#include "util/msgq.h"
#include "util/shared_word.h"
#include "varn/tran.h"

namespace varn::bench {
namespace {

// Two threads may each send a batch after they found the queue half full.
constexpr long kLeastRoom = 1024;

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

PrivateObjects::PrivateObjects(const std::string& config) {
  ConfigValues values{{kQueCnt.key, "1"},
                      {kMaxQueCnt.key, "1"},
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

Stage::Stage(int reader_cpu)
    : objects_(dir_.path / "varn.cfg"),
      room_(queue_records(msgq_id())),
      reader_(msgq_id(), reader_cpu) {
  if (room_ < kLeastRoom)
    throw std::runtime_error("the queue holds only " + std::to_string(room_) +
                             " records; at least " + std::to_string(kLeastRoom) +
                             " are needed: raise kernel.msgmnb");
  setenv("TRAN_HOME", dir_.path.c_str(), 1);
  setenv("TRAN_AGT_HOME", dir_.path.c_str(), 1);
  setenv("TRAN_AGT_CFG_FILE", objects_.settings.path.c_str(), 1);
  setenv("VARN_THREAD_ID", "kernel", 1);
  setenv("VARN_CONSOLE", "off", 1);
  if (const int rc = TRAN_INIT(); rc != TRAN_RC_OK)
    throw std::runtime_error("TRAN_INIT returned " + std::to_string(rc));
}

Stage::~Stage() { TRAN_DONE(); }

std::uint32_t Stage::failed_sends() const {
  return load(objects_.shared.que_info->que_fail_cnt[0]);
}

void Stage::begin(Waiting waiting, std::uint8_t log_flags, std::uint64_t call_limit_us) {
  store(objects_.shared.que_info->call_trc_limit, call_limit_us);
  store(objects_.shared.que_info->log_flag_set, log_flags);
  reader_.start(waiting);
}

void Stage::end() { reader_.stop(); }

void Stage::wait_for_room() const {
  while (get_msgq_num(msgq_id()) > room_ / 2)
    std::this_thread::sleep_for(std::chrono::microseconds(20));
}

}  // namespace varn::bench
