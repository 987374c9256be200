#include "collector/settings.h"

#include <bit>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "layout/config_keys.h"
#include "layout/que_info.h"
#include "util/readcfg.h"
#include "util/tuning.h"

namespace varn {
namespace {

struct NumberKey {
  const ConfigKey& key;
  std::int64_t CollectorSettings::*place;
  std::int64_t least;
  std::int64_t most;
};

constexpr std::int64_t kLastKey = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kLongest = std::numeric_limits<std::int64_t>::max();

// Key 0 would make an object that nobody else can find.
constexpr NumberKey kNumberKeys[] = {
    {kMaxQueCnt, &CollectorSettings::max_que_cnt, 1, kMaxQueues},
    {kQueCnt, &CollectorSettings::que_cnt, 1, kMaxQueues},
    {kTongLogFlag, &CollectorSettings::tong_log_flag, 0, 1},
    {kSvcFiltering, &CollectorSettings::svc_filtering, 0, 2},
    {kCallTrcDepth, &CollectorSettings::call_trc_depth, 0, 127},
    {kCallTrcLimit, &CollectorSettings::call_trc_limit, 0, kLongest},
    {kDbioTrcLimit, &CollectorSettings::dbio_trc_limit, 0, kLongest},
    {kSqlTrcLimit, &CollectorSettings::sql_trc_limit, 0, kLongest},
    {kQueInfoShmKey, &CollectorSettings::que_info_shmkey, 1, kLastKey},
    {kSvcHashTblShmKey, &CollectorSettings::svc_hash_tbl_shmkey, 1, kLastKey},
    {kPtrcHashTblShmKey, &CollectorSettings::ptrc_hash_tbl_shmkey, 1, kLastKey},
    {kSvcHashTblSemKey, &CollectorSettings::svc_hash_tbl_semkey, 1, kLastKey},
    {kPtrcHashTblSemKey, &CollectorSettings::ptrc_hash_tbl_semkey, 1, kLastKey},
    {kTranLogfMsgqKey, &CollectorSettings::tran_logf_msgqkey, 1, kLastKey - kMaxQueues + 1},
};

// Objects of one kind must not share a key.
struct KeyPair {
  const ConfigKey& first;
  const ConfigKey& second;
  std::int64_t CollectorSettings::*first_place;
  std::int64_t CollectorSettings::*second_place;
};
constexpr KeyPair kKeyPairs[] = {
    {kQueInfoShmKey, kSvcHashTblShmKey, &CollectorSettings::que_info_shmkey,
     &CollectorSettings::svc_hash_tbl_shmkey},
    {kQueInfoShmKey, kPtrcHashTblShmKey, &CollectorSettings::que_info_shmkey,
     &CollectorSettings::ptrc_hash_tbl_shmkey},
    {kSvcHashTblShmKey, kPtrcHashTblShmKey, &CollectorSettings::svc_hash_tbl_shmkey,
     &CollectorSettings::ptrc_hash_tbl_shmkey},
    {kSvcHashTblSemKey, kPtrcHashTblSemKey, &CollectorSettings::svc_hash_tbl_semkey,
     &CollectorSettings::ptrc_hash_tbl_semkey},
};

// One file and the place for what is wrong with it.
struct ConfigFile {
  const std::string& path;
  std::string& error;

  bool refuse(const ConfigKey& key, int line, const std::string& what) {
    std::ostringstream text;
    text << path;
    if (line > 0) text << ':' << line;
    text << ": [" << key.section << "] " << key.key << ' ' << what;
    error = text.str();
    return false;
  }

  bool readable() {
    std::error_code unknown;
    if (std::filesystem::is_directory(path, unknown)) {
      error = path + " is a directory, not a configuration file";
      return false;
    }
    if (std::ifstream(path).is_open()) return true;
    error = "cannot open the configuration file " + path + ": " + std::strerror(errno);
    return false;
  }

  // Quietly, which reading the key is not.
  bool lacks(const ConfigKey& key) const {
    std::ifstream file(path);
    bool is_section = false;
    for (std::string line, word; std::getline(file, line);) {
      if (line.starts_with('[')) is_section = line.find(key.section) != std::string::npos;
      if (is_section && std::istringstream(line) >> word && word == key.key) return false;
    }
    return true;
  }

  bool read(const ConfigKey& key, ConfigValue& value) {
    if (key.is_optional && lacks(key)) {
      value.count = 1;
      value.line = 0;
      std::snprintf(value.token[0], sizeof value.token[0], "%s", key.sample);
      return true;
    }
    if (get_tokens_in_file_section(path.c_str(), key.section, key.key, &value) == 1) return true;
    return refuse(key, 0, "is missing or cannot be read");
  }

  bool read_word(const ConfigKey& key, ConfigValue& value) {
    return read(key, value) && (value.count > 0 || refuse(key, value.line, "has no value"));
  }

  bool read_number(const NumberKey& row, CollectorSettings& out) {
    ConfigValue value;
    if (!read_word(row.key, value)) return false;
    const std::string_view token = value.token[0];
    std::int64_t number = 0;
    const auto [end, fault] = std::from_chars(token.begin(), token.end(), number);
    if (end != token.end() || fault == std::errc::invalid_argument)
      return refuse(row.key, value.line,
                    "is \"" + std::string(token) + "\", which is not a decimal number");
    if (fault != std::errc() || number < row.least || number > row.most)
      return refuse(row.key, value.line,
                    "is " + std::string(token) + ", which is not within " +
                        std::to_string(row.least) + " to " + std::to_string(row.most));
    out.*row.place = number;
    return true;
  }

  bool read_error_classes(CollectorSettings& out) {
    ConfigValue value;
    if (!read(kFstErrRcSet, value)) return false;
    for (int i = 0; i < value.count; ++i)
      if (set_err_rc_class(out.fst_err_rc_set, value.token[i]) != 0)
        return refuse(kFstErrRcSet, value.line,
                      "holds \"" + std::string(value.token[i]) +
                          "\", which is not CODE,CLASS with a code of -128 to 128 and class 0, 1 "
                          "or 2");
    return true;
  }
};

}  // namespace

bool read_settings(const std::string& path, CollectorSettings& out, std::string& error) {
  ConfigFile file{path, error};
  out = {};
  out.path = path;
  if (!file.readable()) return false;

  ConfigValue value;
  if (!file.read_word(kLogHome, value)) return false;
  out.log_home = value.token[0];
  if (!file.read_word(kTongLogHome, value)) return false;
  out.tong_log_home = value.token[0];
  if (!file.read(kTranLogFlagSet, value)) return false;
  out.log_flag_set = log_flags_of(value.count > 0 ? value.token[0] : "");
  if (!file.read_error_classes(out)) return false;
  for (const NumberKey& row : kNumberKeys)
    if (!file.read_number(row, out)) return false;

  if (!std::has_single_bit(static_cast<std::uint64_t>(out.que_cnt)))
    return file.refuse(kQueCnt, 0,
                       "is " + std::to_string(out.que_cnt) + "; it must be 1, 2, 4, 8 or 16");
  if (out.que_cnt > out.max_que_cnt)
    return file.refuse(kQueCnt, 0,
                       "is " + std::to_string(out.que_cnt) + ", more than " + kMaxQueCnt.key +
                           ", which is " + std::to_string(out.max_que_cnt));
  for (const KeyPair& pair : kKeyPairs)
    if (out.*pair.first_place == out.*pair.second_place)
      return file.refuse(
          pair.second, 0,
          std::string("is the same key as ") + pair.first.key + "; each needs its own");
  return true;
}

bool read_config_values(const std::string& path, ConfigValues& out, std::string& error) {
  ConfigFile file{path, error};
  if (!file.readable()) return false;
  for (const ConfigKey& key : kConfigKeys) {
    ConfigValue value;
    if (!file.read(key, value)) return false;
    std::string& text = out[key.key];
    text.clear();
    for (int i = 0; i < value.count; ++i) {
      if (i > 0) text += ' ';
      text += value.token[i];
    }
  }
  return true;
}

std::string config_text(const ConfigValues& values) {
  std::string text =
      "# Configuration of the transaction traces: the creator of the shared objects and every\n"
      "# traced process read this file. White space must stand before each '='.\n";
  std::string_view section;
  for (const ConfigKey& key : kConfigKeys) {
    if (section != key.section) {
      section = key.section;
      text.append("\n[").append(section).append("]\n");
    }
    std::istringstream comment(key.comment);
    for (std::string line; std::getline(comment, line);)
      text.append("# ").append(line).append("\n");
    const auto given = values.find(key.key);
    const std::string value = given == values.end() ? key.sample : given->second;
    text.append(key.key).append(" = ").append(value).append("\n");
  }
  return text;
}

std::string agent_log_dir(const CollectorSettings& settings, const std::string& agt_home) {
  const std::string home =
      settings.log_home.starts_with('/') ? settings.log_home : agt_home + "/" + settings.log_home;
  return home + "/proc/libvarn";
}

std::string tong_log_dir(const CollectorSettings& settings) {
  const std::string& home = settings.tong_log_home;
  return home.starts_with('/') ? home : "/" + home;
}

}  // namespace varn
