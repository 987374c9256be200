// Start-up from outside: environment, configuration file, shared objects, and what a start leaves
// behind in the log, on the queues and on the console.
#include <grp.h>
#include <sched.h>
#include <sys/prctl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

#include "process/calls.h"

namespace varn::test {
namespace {

namespace fs = std::filesystem;

std::string own_name() { return std::string(program_invocation_short_name).substr(0, 15); }

class StartUp : public testing::Test {
 protected:
  // What a start tells on the console and, behind a bar, in the log of its only fault: the key with
  // this value, or without a line (null). Everything is refused until a start finds it repaired.
  std::string fault_of(const ConfigKey& key, const char* value) {
    const std::string good = collector_.key_value(key);
    value == nullptr ? collector_.remove_key(key) : collector_.set_key(key, value);
    const auto child = collector_.start([&] {
      std::freopen((collector_.home() / "stderr").c_str(), "w", stderr);
      EXPECT_EQ(TRAN_INIT(), 103);
      expect_everything_returns(103);
      EXPECT_EQ(TRAN_SET_SVCTIMEOUT(-1), 103);
      if (value != nullptr) {
        EXPECT_EQ(TRAN_DONE(), 0) << "nothing was started";
      }
      collector_.set_key(key, good);
      EXPECT_EQ(TRAN_INIT(), 0) << "after the repair";
    });
    EXPECT_TRUE(child->wait());
    collector_.set_key(key, good);
    std::string fault = read_file(collector_.home() / "stderr") + "|";
    for (const LogLine& line : collector_.log_lines())
      if (line.pid == child->pid() && line.text.starts_with("<!> ")) fault += line.text;
    return fault;
  }

  FakeCollector collector_;
};

TEST_F(StartUp, EveryEnvironmentVariableIsRequired) {
  collector_.remove_object(kTranLogfMsgqKey);
  EXPECT_TRUE(collector_.run([&] {
    for (const bool log_is_open : {false, true}) {
      for (const std::string name : {"TRAN_HOME", "TRAN_AGT_HOME", "TRAN_AGT_CFG_FILE"}) {
        unsetenv(name.c_str());
        EXPECT_EQ(TRAN_INIT(), 106) << name;
        const std::string told = "<!> please, check environment-variable (" + name + ")";
        EXPECT_EQ(collector_.count_logged(told), log_is_open ? 1 : 0) << told;
        expect_everything_returns(103);
        setenv(name.c_str(), collector_.environment.at(name).c_str(), 1);
      }
      EXPECT_EQ(TRAN_INIT(), 103) << "for want of a queue, with the log open";
    }
  }));
}

TEST_F(StartUp, EveryKeyIsRequiredWithAUsableValue) {
  const struct {
    const ConfigKey& key;
    bool is_logged;  // whether the log, too, tells that it is missing
    std::vector<const char*> bad = {};
  } rows[] = {
      {kLogHome, false},  // its message comes before the log
      {kTongLogHome, true},
      {kLogInterface, true},
      {kTrSection, false},
      {kQueInfoShmKey, true, {"0x10", "99999999999", "0"}},
      {kIdleThreadRelease, true, {"x 1", "300 x", "300"}},
      {kInfiniteLoopBaseCnt, true, {"many", "4294967296"}},
      {kMaxQueCnt, true, {"0", "17", "3"}},  // three are fewer than the collector's four
      {kSvcHashTblShmKey, false, {"0"}},
      {kSvcHashTblSemKey, false, {"0"}},
      {kPtrcHashTblShmKey, false, {"0"}},
      {kPtrcHashTblSemKey, false, {"0"}},
      {kWriteQueIdxGidRng, true, {"a 30", "0 b", "3 30", "-1 5", "0 -1", "0"}},
      {kTranLogfMsgqKey, true, {"1.5", "0", "2147483647", "99999999999999999999"}},
      {kDbioFunc, true, {"first db", "0"}},
      {kDefaultTimeoutSec, true, {"60s"}},
  };
  for (const auto& row : rows) {
    const std::string name = "[" + std::string(row.key.key) + "]";
    SCOPED_TRACE(name);
    const std::string missing = fault_of(row.key, nullptr);
    const std::string logged = row.is_logged ? "<!> tran_init fail, not found section " + name : "";
    EXPECT_NE(missing.find("not found keyword" + name), std::string::npos) << missing;
    EXPECT_TRUE(missing.ends_with("|" + logged)) << missing;
    for (const char* bad : row.bad) {
      const std::string fault = fault_of(row.key, bad);
      EXPECT_NE(fault.find(name, fault.find('|')), std::string::npos) << bad << fault;
    }
  }
  EXPECT_EQ(collector_.count_logged("gvar_cleared 2"), 16) << "went on from a failed start";
}

TEST_F(StartUp, EverySharedObjectMustBeThereAndOfItsSize) {
  const IpcObject foreign(IpcKind::kSegment, 17, 247, 0666);  // 16 is nobody's key
  const std::string last_missing = std::to_string(collector_.object(kTranLogfMsgqKey, 1).key());
  const std::string initialize = "<!> tran_init fail, shared-memory initialize ";
  const struct {
    const ConfigKey& key;
    const char* value;
    std::string logged;
  } rows[] = {
      {kQueInfoShmKey, "16", initialize + "[TRAN_LOGF_QUE_INFO], errno : 2"},
      {kQueInfoShmKey, "17", initialize + "[TRAN_LOGF_QUE_INFO], errno : 22"},
      {kSvcHashTblSemKey, "16", "<!> svc_hash_tbl semaphore create error.[key:0x10]"},
      {kSvcHashTblShmKey, "16", initialize + "[SVC_HASH_TBL] ( 1382160 bytes)"},
      {kSvcHashTblShmKey, "17", initialize + "[SVC_HASH_TBL] ( 1382160 bytes)"},
      {kPtrcHashTblSemKey, "16", "<!> ptrc_hash_tbl semaphore create error.[key:0x10]"},
      {kPtrcHashTblShmKey, "16", initialize + "[PTRC_HASH_TBL] ( 601382160 bytes)"},
      {kPtrcHashTblShmKey, "17", initialize + "[PTRC_HASH_TBL] ( 601382160 bytes)"},
      {kTranLogfMsgqKey, "16", "<!> create fail msgq#00"},
      {kTranLogfMsgqKey, last_missing.c_str(), "<!> create fail msgq#03"},
  };
  for (const auto& row : rows) EXPECT_EQ(fault_of(row.key, row.value), "|" + row.logged);
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
    EXPECT_TRUE(is_sent(event(-1)));
    EXPECT_EQ(TRAN_DONE(), 0);
  }));
}

TEST_F(StartUp, IsToldByTheLogAndByAnEventWithTheHostNameCut) {
  const std::string host = "a-very-long-container-name-of-sixty-three-characters-0123456789";
  collector_.environment["TRAN_HOME"] = "/nowhere";  // the log is in the agent's home
  const auto child = collector_.start([&] {
    ASSERT_EQ(unshare(CLONE_NEWUTS) | sethostname(host.data(), host.size()), 0);
    setenv("LANG", "ko_KR.euckr", 1);
    setenv("LD_PRELOAD", "/opt/hook.so", 1);
    ASSERT_EQ(TRAN_INIT(), 0);
    ASSERT_EQ(TRAN_DONE(), 0);
  });
  EXPECT_TRUE(child->wait());
  const std::string pid = std::to_string(child->pid());
  std::string log;
  for (const LogLine& line : collector_.log_lines()) {
    EXPECT_EQ(line.pid, child->pid());
    log += line.text + "\n";
  }
  const std::regex own_layout(R"((MTR_TID_IDX\(256\)|GLOBAL_VAR) [0-9]{6,} bytes)");
  std::string told =
      "(I) write_qidx_idx_gid_rng - (offset : 0, size 30, gid[0]~gid[29]) \n"
      "(I) ptrc_hash pid-tid created.(pid : PID, tid : 0, mtr_tid_idx : 0(1 threads), "
      "arr_idx : 9999), used : 1(=1)\n"
      "(I) [SHARED_LIB] TRAN_INIT [VERSION] complete.. [ MTR_TID_IDX(256) # bytes ] "
      "[ magic_code 0xaaaaaaaa,  qcnt 4, log_flag_set 0xff, proc_nm : NAME (PID), "
      "TRAN_LOGF_QUE_INFO 248 bytes, TRAN_LOGF_QUE_DATA 688 bytes, GLOBAL_VAR # bytes, "
      "gvar_cleared 1, LANG ko_KR.euckr ]\n"
      "(I) [PRELOAD LIBRARY] hooking library loaded... { LD_PRELOAD = /opt/hook.so }\n"
      "(I) API Process (NAME / ) Start OK (ret 0)\n"
      "(I) completed join main_thread\n"
      "(I) mtr_tid_idx[0000 - 1 of 1] pid(PID/PID)-tid(0/0) closed. get_ptrc[9999] "
      "is [ true - true ]\n"
      "(I) [SHARED_LIB] tran_destroy() [VERSION] complete.. proc_nm : NAME (PID)\n"
      ">> TRAN_DONE() Success...\n";
  const std::string version = "libvarn v13.5(2018.05.18) for Vexholm Quorlen UI Project";
  for (const auto& [word, value] :
       {std::pair("PID", pid), std::pair("NAME", own_name()), std::pair("VERSION", version)})
    told = std::regex_replace(told, std::regex(word), value);
  EXPECT_EQ(std::regex_replace(log, own_layout, "$1 # bytes"), told);

  const std::vector<Record> records = collector_.read_all();
  ASSERT_EQ(records.size(), 1U);
  const Record& record = records[0];
  const std::string moment = field_of(record, kDate) + " " + field_of(record, kTime);
  EXPECT_TRUE(std::regex_match(moment, std::regex("20[0-9]{6} [0-9]{12}"))) << moment;
  const std::string text = euc_kr("거래추적 대상 프로세스(" + own_name() + ")가 기동되었습니다.");
  const std::string expected = padded("V", 40) + padded(own_name(), 33) + host.substr(0, 15) + " " +
                               std::string(8 - pid.size(), '0') + pid +
                               " 000000000000000 00000 09999 " + moment + " 1508 " +
                               std::string(18, ' ') + text;
  EXPECT_EQ(record.length, 684U);
  EXPECT_EQ(record.mtype, 0x2020202020202020);
  EXPECT_EQ(std::string(record.view, sizeof record.view), padded(expected, sizeof record.view));
}

TEST_F(StartUp, TheBannerIsShownUnlessSwitchedOff) {
  const fs::path console = collector_.home() / "stdout";
  for (const char* setting : {"on", "off"}) {
    collector_.environment["VARN_CONSOLE"] = setting;
    EXPECT_TRUE(collector_.run([&] {
      ASSERT_NE(std::freopen(console.c_str(), "w", stdout), nullptr);
      EXPECT_EQ(TRAN_INIT(), 0);
      print_logo();
    }));
    const std::regex twice(R"((#{81}\n(?:##.{77}##\n){5}##.{68}ver 8\.0  ##\n#{81}\n)\1)");
    const std::string shown = read_file(console);
    EXPECT_TRUE(setting[1] == 'n' ? std::regex_match(shown, twice) : shown.empty()) << shown;
  }
}

TEST_F(StartUp, LogsToAnAbsoluteDirectoryToo) {
  const fs::path dir = collector_.home() / "abs/proc/libvarn";
  fs::create_directories(dir);
  collector_.environment["TRAN_AGT_HOME"] = "/nowhere";
  EXPECT_TRUE(collector_.run([] { EXPECT_EQ(TRAN_INIT(), 0) << "a log is not essential"; }));
  collector_.set_key(kLogHome, collector_.home() / "abs");
  EXPECT_TRUE(collector_.run([] { EXPECT_EQ(TRAN_INIT(), 0); }));
  EXPECT_FALSE(fs::is_empty(dir));
}

TEST_F(StartUp, AReleaseAllowsTheNextStartAndASecondStartChangesNothing) {
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
    EXPECT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(is_sent(start(-1)));
    prctl(PR_SET_NAME, "renamed");
    EXPECT_EQ(TRAN_INIT(), 104);
    EXPECT_TRUE(is_sent(info(5))) << "a new context takes the names as they were";
    EXPECT_TRUE(is_sent(end(-1))) << "the open service is still open";
  }));
  EXPECT_EQ(collector_.count_logged("gvar_cleared 1"), 4);
  EXPECT_EQ(collector_.count_logged("<!> already TRAN_INIT API initialized."), 1);
  for (const Record& record : collector_.read_all())
    EXPECT_EQ(text_of(record, kProcNm), own_name());
}

TEST_F(StartUp, TheCollectorsReadinessDecides) {
  collector_.que_info().magic_code = 0;
  collector_.environment.erase("LANG");
  EXPECT_TRUE(collector_.run([&] {
    EXPECT_EQ(TRAN_INIT(), 0);
    EXPECT_TRUE(collector_.read_all().empty()) << "no event before the collector is ready";
    expect_everything_returns(99);
    collector_.que_info().magic_code = kMagicReady;
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
