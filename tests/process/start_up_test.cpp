// Start-up from outside: environment, configuration file, shared objects, and what a start leaves
// behind in the log, on the queues and on the console.
#include <grp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>

#include "hash/hash.h"
#include "process/calls.h"

namespace varn::test {
namespace {

namespace fs = std::filesystem;

constexpr char kVersion[] = "libvarn v13.5(2018.05.18) for Vexholm Quorlen UI Project";

std::string own_name() { return std::string(program_invocation_short_name).substr(0, 15); }

class StartUp : public testing::Test {
 protected:
  // A start that fails with the code leaves the agent refusing everything; how it went is in the
  // log and, where the configuration file is at fault, on standard error.
  void expect_failure(
      int code, const std::function<void()>& repair = [] {}) {
    EXPECT_TRUE(collector_.run([&] {
      std::freopen((collector_.home() / "stderr").c_str(), "w", stderr);
      EXPECT_EQ(TRAN_INIT(), code);
      expect_everything_returns(TRAN_RC_NOT_STARTED);
      EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), TRAN_RC_NOT_STARTED);
      repair();
      EXPECT_EQ(TRAN_INIT(), 0) << "after the repair";
      EXPECT_EQ(TRAN_DONE(), 0);
    }));
  }
  std::string errors() { return read_file(collector_.home() / "stderr"); }
  // Lines before the one that tells of the start after the repair, and after the last look.
  std::string first_new_fault() {
    const std::vector<LogLine> lines = collector_.log_lines();
    for (; seen_ < lines.size(); ++seen_)
      if (lines[seen_].text.starts_with("<!> ")) {
        const std::string fault = lines[seen_].text;
        seen_ = lines.size();
        return fault;
      }
    return "";
  }

  FakeCollector collector_;
  std::size_t seen_ = 0;
};

TEST_F(StartUp, EveryEnvironmentVariableIsRequired) {
  for (const char* name : {"TRAN_HOME", "TRAN_AGT_HOME", "TRAN_AGT_CFG_FILE"}) {
    SCOPED_TRACE(name);
    const std::string value = collector_.environment.at(name);
    collector_.environment.erase(name);
    fs::remove_all(collector_.log_dir());
    fs::create_directories(collector_.log_dir());
    expect_failure(106, [&] {
      EXPECT_TRUE(fs::is_empty(collector_.log_dir())) << "no log is open yet";
      setenv(name, value.c_str(), 1);
      // With the log open from a start that got further, the variable is named there.
      const std::string queues = collector_.key_value(kTranLogfMsgqKey);
      collector_.set_key(kTranLogfMsgqKey, "1");
      EXPECT_EQ(TRAN_INIT(), 103);
      unsetenv(name);
      EXPECT_EQ(TRAN_INIT(), 106);
      EXPECT_EQ(collector_.log_lines().back().text,
                "<!> please, check environment-variable (" + std::string(name) + ")");
      setenv(name, value.c_str(), 1);
      collector_.set_key(kTranLogfMsgqKey, queues);
    });
    collector_.environment[name] = value;
  }
}

TEST_F(StartUp, EveryKeyIsRequired) {
  const struct {
    const ConfigKey& key;
    bool is_logged;
    const char* too_short = nullptr;  // value that lacks the second token
  } rows[] = {
      {kLogHome, false},  // its message comes before the log
      {kTongLogHome, true},
      {kLogInterface, true},
      {kTrSection, false},
      {kQueInfoShmKey, true},
      {kIdleThreadRelease, true, "300"},
      {kInfiniteLoopBaseCnt, true},
      {kMaxQueCnt, true},
      {kSvcHashTblShmKey, false},
      {kSvcHashTblSemKey, false},
      {kPtrcHashTblShmKey, false},
      {kPtrcHashTblSemKey, false},
      {kWriteQueIdxGidRng, true, "0"},
      {kTranLogfMsgqKey, true},
      {kDbioFunc, true, "0"},
      {kDefaultTimeoutSec, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.key.key);
    const std::string name = row.key.key;
    const std::string value = collector_.key_value(row.key);
    const std::string fault =
        row.is_logged ? "<!> tran_init fail, not found section [" + name + "]" : "";
    const auto repair = [&] { collector_.set_key(row.key, value); };
    collector_.remove_key(row.key);
    expect_failure(103, repair);
    EXPECT_NE(errors().find("not found keyword[" + name + "]"), std::string::npos) << errors();
    EXPECT_EQ(first_new_fault(), fault);
    if (row.too_short != nullptr) {
      collector_.set_key(row.key, row.too_short);
      expect_failure(103, repair);
      EXPECT_NE(errors().find("can't found nth(2) token"), std::string::npos) << errors();
      EXPECT_EQ(first_new_fault(), fault);
    }
    repair();
  }
}

TEST_F(StartUp, ValuesThatAreNoUsableNumbersAreRefused) {
  const struct {
    const ConfigKey& key;
    std::vector<const char*> values;
  } rows[] = {
      {kQueInfoShmKey, {"0x10", "99999999999"}},
      {kSvcHashTblShmKey, {"12x"}},
      {kPtrcHashTblSemKey, {"-"}},
      {kTranLogfMsgqKey, {"1.5", "99999999999999999999"}},
      {kIdleThreadRelease, {"x 1", "300 x"}},
      {kInfiniteLoopBaseCnt, {"many", "4294967296"}},
      {kDefaultTimeoutSec, {"60s"}},
      {kDbioFunc, {"first db"}},
      {kMaxQueCnt, {"0", "-1", "17", "3", "four"}},  // three are fewer than the collector's four
      {kWriteQueIdxGidRng, {"a 30", "0 b", "0 33", "32 1", "-1 5", "0 -1"}},
  };
  for (const auto& row : rows) {
    const std::string value = collector_.key_value(row.key);
    for (const char* bad : row.values) {
      SCOPED_TRACE(std::string(row.key.key) + " = " + bad);
      collector_.set_key(row.key, bad);
      expect_failure(103, [&] { collector_.set_key(row.key, value); });
      const std::string fault = first_new_fault();
      EXPECT_NE(fault.find(std::string("[") + row.key.key + "]"), fault.npos) << fault;
    }
    collector_.set_key(row.key, value);
  }
}

TEST_F(StartUp, EverySharedObjectMustBeThereAndOfItsSize) {
  const std::string initialize = "<!> tran_init fail, shared-memory initialize ";
  const struct {
    const ConfigKey& key;
    int queue;
    std::size_t smaller;  // size of a foreign segment in its place; 0: none at all
    std::string fault;
  } rows[] = {
      {kQueInfoShmKey, 0, 0, initialize + "[TRAN_LOGF_QUE_INFO], errno : 2"},
      {kQueInfoShmKey, 0, 247, initialize + "[TRAN_LOGF_QUE_INFO], errno : 22"},
      {kSvcHashTblSemKey, 0, 0, "<!> svc_hash_tbl semaphore create error.[key:0xKEY]"},
      {kSvcHashTblShmKey, 0, 0, initialize + "[SVC_HASH_TBL] ( 1382160 bytes)"},
      {kSvcHashTblShmKey, 0, 1'382'159, initialize + "[SVC_HASH_TBL] ( 1382160 bytes)"},
      {kPtrcHashTblSemKey, 0, 0, "<!> ptrc_hash_tbl semaphore create error.[key:0xKEY]"},
      {kPtrcHashTblShmKey, 0, 0, initialize + "[PTRC_HASH_TBL] ( 601382160 bytes)"},
      {kPtrcHashTblShmKey, 0, 4096, initialize + "[PTRC_HASH_TBL] ( 601382160 bytes)"},
      {kTranLogfMsgqKey, 0, 0, "<!> create fail msgq#00"},
      {kTranLogfMsgqKey, 3, 0, "<!> create fail msgq#03"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fault);
    FakeCollector collector;
    char key[16];
    std::snprintf(key, sizeof key, "%x", std::stoi(collector.key_value(row.key)));
    const std::string expected = std::regex_replace(row.fault, std::regex("KEY"), key);
    if (row.smaller != 0)
      collector.replace_segment(row.key, row.smaller);
    else
      collector.remove_object(row.key, row.queue);
    EXPECT_TRUE(collector.run([] {
      EXPECT_EQ(TRAN_INIT(), 103);
      expect_everything_returns(103);
      EXPECT_EQ(TRAN_DONE(), 0) << "nothing was started";
    }));
    const std::vector<LogLine> lines = collector.log_lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2].text, expected);
    EXPECT_EQ(lines.back().text, ">> TRAN_DONE() Success...");
  }
}

TEST(StartUpAsAnotherUser, AttachesObjectsThatGrantTheGroupAccess) {
  constexpr gid_t kGroup = 65534;
  if (getuid() != 0 || setegid(kGroup) != 0 || setegid(0) != 0)
    GTEST_SKIP() << "needs other users' ids";
  FakeCollector collector({.mode = 0660});
  collector.allow_group(kGroup);
  EXPECT_TRUE(collector.run([] {
    ASSERT_EQ(setgroups(0, nullptr) | setgid(kGroup) | setuid(65534), 0);
    EXPECT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(start(-1)));
    EXPECT_TRUE(is_sent(end(-1)));
    EXPECT_EQ(TRAN_DONE(), 0);
  }));
}

TEST_F(StartUp, TheLogTellsOfStartAndRelease) {
  Shared<int> pid;
  EXPECT_TRUE(collector_.run([&] {
    *pid = getpid();
    setenv("LANG", "ko_KR.euckr", 1);
    setenv("LD_PRELOAD", "/opt/hook.so", 1);
    ASSERT_EQ(TRAN_INIT(), 0);
    ASSERT_EQ(TRAN_DONE(), 0);
  }));
  const std::string id = std::to_string(*pid);
  const std::string name = own_name();
  const std::string expected =
      "(I) write_qidx_idx_gid_rng - (offset : 0, size 30, gid[0]~gid[29]) \n"
      "(I) ptrc_hash pid-tid created.(pid : " +
      id +
      ", tid : 0, mtr_tid_idx : 0(1 threads), "
      "arr_idx : 9999), used : 1(=1)\n"
      "(I) [SHARED_LIB] TRAN_INIT [" +
      kVersion +
      "] complete.. [ MTR_TID_IDX(256) # bytes ] "
      "[ magic_code 0xaaaaaaaa,  qcnt 4, log_flag_set 0xff, proc_nm : " +
      name + " (" + id +
      "), TRAN_LOGF_QUE_INFO 248 bytes, TRAN_LOGF_QUE_DATA 688 bytes, GLOBAL_VAR # bytes, "
      "gvar_cleared 1, LANG ko_KR.euckr ]\n"
      "(I) [PRELOAD LIBRARY] hooking library loaded... { LD_PRELOAD = /opt/hook.so }\n"
      "(I) API Process (" +
      name +
      " / ) Start OK (ret 0)\n"
      "(I) mtr_tid_idx[0000 - 1 of 1] pid(" +
      id + "/" + id +
      ")-tid(0/0) closed. get_ptrc[9999] "
      "is [ true - true ]\n"
      "(I) [SHARED_LIB] tran_destroy() [" +
      kVersion + "] complete.. proc_nm : " + name + " (" + id +
      ")\n"
      ">> TRAN_DONE() Success...\n";
  std::string got;
  for (const LogLine& line : collector_.log_lines()) {
    EXPECT_EQ(line.pid, *pid);
    got += line.text + "\n";
  }
  const std::regex size(R"((MTR_TID_IDX\(256\)|GLOBAL_VAR) [0-9]{6,} bytes)");  // own layout
  EXPECT_EQ(std::regex_replace(got, size, "$1 # bytes"), expected);
}

TEST_F(StartUp, TheStartIsAnnouncedByAnEvent) {
  Shared<int> pid;
  EXPECT_TRUE(collector_.run([&] {
    *pid = getpid();
    ASSERT_EQ(TRAN_INIT(), 0);
  }));
  const auto padded = [](std::string text, std::size_t width) {
    text.resize(width, ' ');
    return text + " ";
  };
  char host[256];
  gethostname(host, sizeof host);
  char id[16];
  std::snprintf(id, sizeof id, "%08d", *pid);
  const int queue = static_cast<int>(get_hash_code(std::string(30, ' ').c_str(), 30) & 3);
  const std::vector<Record> records = collector_.read_queue(queue);
  ASSERT_EQ(records.size(), 1U);
  const Record& record = records[0];
  const std::string moment = field_of(record, kDate) + " " + field_of(record, kTime) + " ";
  EXPECT_TRUE(std::regex_match(moment, std::regex("20[0-9]{6} [0-9]{12} "))) << moment;
  const std::string expected =
      padded("V", 1) + padded("", 2) + padded("", 1) + padded("", 32) + padded(own_name(), 15) +
      padded("", 16) + padded(std::string(host).substr(0, 15), 15) + padded(id, 8) +
      "000000000000000 00000 09999 " + moment + "1508 " + padded("", 12) + padded("", 4) +
      padded(euc_kr("거래추적 대상 프로세스(" + own_name() + ")가 기동되었습니다."), 512);
  EXPECT_EQ(expected.size(), 684U);
  EXPECT_EQ(record.length, 684U);
  EXPECT_EQ(record.mtype, 0x2020202020202020);
  EXPECT_EQ(std::string(record.view, sizeof record.view),
            expected + std::string(sizeof record.view - expected.size(), ' '));
}

TEST_F(StartUp, TheBannerIsShownUnlessSwitchedOff) {
  const fs::path console = collector_.home() / "stdout";
  for (const bool on : {true, false}) {
    collector_.environment["VARN_CONSOLE"] = on ? "on" : "off";
    EXPECT_TRUE(collector_.run([&] {
      ASSERT_NE(std::freopen(console.c_str(), "w", stdout), nullptr);
      EXPECT_EQ(TRAN_INIT(), 0);
      print_logo();
    }));
    std::string shown = read_file(console);
    if (!on) {
      EXPECT_EQ(shown, "");
      continue;
    }
    ASSERT_EQ(shown.size(), 2 * 8 * 82U);
    EXPECT_EQ(shown.substr(0, 8 * 82), shown.substr(8 * 82));
    for (int i = 0; i < 8; ++i, shown.erase(0, 82)) {
      const std::string line = shown.substr(0, 82);
      EXPECT_EQ(line.find('\n'), 81U) << line;
      if (i == 0 || i == 7) {
        EXPECT_EQ(line, std::string(81, '#') + "\n");
      }
      EXPECT_EQ(line.substr(0, 2) + line.substr(79, 2), "####") << line;
      EXPECT_EQ(line.find("ver 8.0") != line.npos, i == 6) << line;
    }
  }
}

TEST_F(StartUp, TheLogsDirectoryIsAbsoluteOrUnderTheAgentsHome) {
  const struct {
    std::string home, log_home, dir;
  } cases[] = {{collector_.home() / "agt", "log", collector_.home() / "agt/log"},
               {"/nowhere", collector_.home() / "abs", collector_.home() / "abs"}};
  for (const auto& c : cases) {
    fs::create_directories(c.dir + "/proc/libvarn");
    collector_.environment["TRAN_AGT_HOME"] = c.home;
    collector_.set_key(kLogHome, c.log_home);
    EXPECT_TRUE(collector_.run([] { EXPECT_EQ(TRAN_INIT(), 0); }));
    EXPECT_FALSE(fs::is_empty(c.dir + "/proc/libvarn")) << c.dir;
  }
  collector_.set_key(kLogHome, "nowhere");
  EXPECT_TRUE(collector_.run([] { EXPECT_EQ(TRAN_INIT(), 0) << "the log is not essential"; }));
}

TEST_F(StartUp, AHostNameOfAnyLengthIsCut) {
  const std::string name = "a-very-long-container-name-of-sixty-three-characters-0123456789";
  Shared<bool> permitted;
  EXPECT_TRUE(collector_.run([&] {
    if (unshare(CLONE_NEWUTS) != 0 || sethostname(name.data(), name.size()) != 0) return;
    *permitted = true;
    EXPECT_EQ(TRAN_INIT(), 0);
  }));
  if (!*permitted) GTEST_SKIP() << "may not change a host name";
  const std::vector<Record> records = collector_.read_all('V');
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(field_of(records[0], kHostName), name.substr(0, 15));
}

TEST_F(StartUp, StartDoneAndStartAgain) {
  EXPECT_TRUE(collector_.run([&] {
    EXPECT_EQ(TRAN_DONE(), 0) << "without a start";
    tran_call_rc call = {0, -5};
    EXPECT_EQ(is_err_rc(&call), 0) << "there is no segment to look into";
    for (const int round : {1, 2, 3}) {
      SCOPED_TRACE(round);
      EXPECT_EQ(TRAN_INIT(), 0);
      for (const auto& [name, result] : call_everything(-1))
        EXPECT_TRUE(is_sent(result)) << name << " " << result;
      EXPECT_EQ(TRAN_DONE(), 0);
      expect_everything_returns(103);
      EXPECT_EQ(TRAN_DONE(), 0);
      EXPECT_EQ(collector_.read_all('V').size(), 2U) << "one of them announces the process";
    }
  }));
  EXPECT_EQ(collector_.count_logged("gvar_cleared 1"), 3);
}

TEST_F(StartUp, AStartAfterAFailedOneGoesOnFromThere) {
  const std::string queues = collector_.key_value(kTranLogfMsgqKey);
  collector_.set_key(kTranLogfMsgqKey, "1");
  expect_failure(103, [&] { collector_.set_key(kTranLogfMsgqKey, queues); });
  EXPECT_EQ(collector_.count_logged("gvar_cleared 2"), 1);
}

TEST_F(StartUp, ASecondStartChangesNothing) {
  EXPECT_TRUE(collector_.run([] {
    ASSERT_EQ(TRAN_INIT(), 0);
    ASSERT_TRUE(is_sent(start(-1)));
    prctl(PR_SET_NAME, "renamed");
    EXPECT_EQ(TRAN_INIT(), 104);
    EXPECT_TRUE(is_sent(info(5))) << "a new context takes the names as they were";
    EXPECT_TRUE(is_sent(end(-1))) << "the open service is still open";
  }));
  EXPECT_TRUE(collector_.logged("<!> already TRAN_INIT API initialized."));
  for (const Record& record : collector_.read_all())
    EXPECT_EQ(text_of(record, kProcNm), own_name());
}

TEST_F(StartUp, TheCollectorsReadinessDecides) {
  collector_.que_info().magic_code = 0;
  collector_.environment["LANG"] = "";
  EXPECT_TRUE(collector_.run([&] {
    unsetenv("LANG");
    EXPECT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(collector_.read_all().empty()) << "no event before the collector is ready";
    expect_everything_returns(99);
    collector_.que_info().magic_code = kMagicReady;
    EXPECT_TRUE(is_sent(event(-1)));
    for (const int que_cnt : {0, -1, 17}) {
      collector_.que_info().que_cnt = que_cnt;
      expect_everything_returns(101);
    }
    collector_.que_info().que_cnt = 4;
    EXPECT_TRUE(is_sent(event(-1)));
    EXPECT_EQ(TRAN_DONE(), 0);
    collector_.que_info().que_cnt = 0;
    EXPECT_EQ(TRAN_INIT(), 0);
    expect_everything_returns(101);
  }));
  EXPECT_TRUE(collector_.logged("magic_code 0x00000000"));
  EXPECT_TRUE(collector_.logged("LANG None ]"));
}

}  // namespace
}  // namespace varn::test
