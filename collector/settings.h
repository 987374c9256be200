// What the creator of the shared objects takes from the configuration file, and the file itself as
// text.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace varn {

// Plain numbers as the file gives them, checked against the bounds of what they are for.
struct CollectorSettings {
  std::string path;           // of the file they come from
  std::string log_home;       // LOG_HOME as written
  std::string tong_log_home;  // TONG_LOG_HOME as written

  std::int64_t que_cnt = 0;      // queues in use: 1, 2, 4, 8 or 16; at most max_que_cnt
  std::int64_t max_que_cnt = 0;  // queues that exist: 1 to 16
  std::uint8_t log_flag_set = 0;
  std::int8_t fst_err_rc_set[128] = {};  // class 0, 1 or 2 of each return-code magnitude
  std::int64_t tong_log_flag = 0;        // 1: whole telegrams are logged
  std::int64_t svc_filtering = 0;
  std::int64_t call_trc_depth = 0;
  std::int64_t call_trc_limit = 0;  // microseconds, as the two below
  std::int64_t dbio_trc_limit = 0;
  std::int64_t sql_trc_limit = 0;

  std::int64_t que_info_shmkey = 0;
  std::int64_t svc_hash_tbl_shmkey = 0;
  std::int64_t ptrc_hash_tbl_shmkey = 0;
  std::int64_t svc_hash_tbl_semkey = 0;
  std::int64_t ptrc_hash_tbl_semkey = 0;
  std::int64_t tran_logf_msgqkey = 0;  // of queue 0; queue N has this key plus N
};

// Reads and checks the file. False, with the file, line, section and key at fault in `error`.
bool read_settings(const std::string& path, CollectorSettings& out, std::string& error);

// Values by key name, as a file spells them.
using ConfigValues = std::map<std::string_view, std::string>;

// Reads the value of every known key; false, with the reason, when one is missing that must not be.
bool read_config_values(const std::string& path, ConfigValues& out, std::string& error);

// A commented file that lists every known key, with the value given for it or else its sample.
std::string config_text(const ConfigValues& values);

// The directory that holds the agent log. A relative LOG_HOME lies under `agt_home`, the value of
// TRAN_AGT_HOME.
std::string agent_log_dir(const CollectorSettings& settings, const std::string& agt_home);

// The directory that holds the files of whole telegrams. A relative TONG_LOG_HOME lies under the
// root.
std::string tong_log_dir(const CollectorSettings& settings);

}  // namespace varn
