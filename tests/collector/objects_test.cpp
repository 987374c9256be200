// The shared objects and the file that says what they are: made, adopted, refused, removed.
#include "collector/objects.h"

#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <sstream>
#include <string>
#include <vector>

#include "layout/config_keys.h"
#include "support/support.h"
#include "util/sem.h"
#include "util/shared_word.h"

namespace varn {
namespace {

using test::IpcKind;
using test::IpcObject;

// Lines that /proc has of all objects of this namespace, which is shared with nobody.
std::vector<std::string> listed() {
  std::vector<std::string> lines;
  for (const char* kind : {"shm", "sem", "msg"}) {
    std::istringstream text(test::read_file(std::string("/proc/sysvipc/") + kind));
    std::string line;
    for (std::getline(text, line); std::getline(text, line);) lines.push_back(line);
  }
  return lines;
}

class Objects : public testing::Test {
 protected:
  bool create() {
    detach_objects(objects_);
    return create_objects(settings_, objects_, error_);
  }
  bool remove() {
    detach_objects(objects_);
    return remove_objects(settings_, removed_, error_);
  }
  void SetUp() override {
    ASSERT_EQ(listed().size(), 0u)
        << "the sample's keys are used: run it in a namespace of its own";
    test::write_file(path_, config_text({{kFstErrRcSet.key, "128,0 -7,2"},
                                         {kTranLogFlagSet.key, "SQ"},
                                         {kCallTrcLimit.key, "9223372036854775807"}}));
    ASSERT_TRUE(read_settings(path_, settings_, error_)) << error_;
  }
  void TearDown() override {
    EXPECT_TRUE(remove()) << error_;
    EXPECT_EQ(listed().size(), 0u);
  }
  void expect_told(const std::string& part) const {
    EXPECT_NE(error_.find(part), std::string::npos) << part << " not in: " << error_;
  }

  const test::TempDir dir_;
  const std::string path_ = dir_ / "agent.cfg";
  CollectorSettings settings_;
  SharedObjects objects_;
  Removed removed_;
  std::string error_;
};

TEST_F(Objects, NeedAFileThatSaysAllOfThemAndNothingElse) {
  const struct {
    const ConfigKey& key;
    const char* value;
    const char* what;
  } cases[] = {
      {kQueCnt, "3", "is 3; it must be 1, 2, 4, 8 or 16"},
      {kQueCnt, "8", "is 8, more than MAX_QUE_CNT, which is 4"},
      {kQueCnt, "4x", "is \"4x\", which is not a decimal number"},
      {kMaxQueCnt, "17", "is 17, which is not within 1 to 16"},
      {kMaxQueCnt, "", "has no value"},
      {kTongLogFlag, "2", "is 2, which is not within 0 to 1"},
      {kTongLogFlag, "", "has no value"},
      {kCallTrcDepth, "128", "is 128, which is not within 0 to 127"},
      {kCallTrcLimit, "-1", "is -1, which is not within 0 to"},
      {kSqlTrcLimit, "99999999999999999999", "is 99999999999999999999, which is not within 0 to"},
      {kFstErrRcSet, "128,1 5,3", "holds \"5,3\""},
      // Queue 15 would have no key.
      {kTranLogfMsgqKey, "2147483633", "is 2147483633, which is not within 1 to"},
      {kSvcHashTblShmKey, kQueInfoShmKey.sample, "is the same key as TRAN_LOGF_QUE_INFO_SHMKEY"},
  };
  const auto told = [&](const ConfigKey& key, const std::string& what) {
    expect_told("[" + std::string(key.section) + "] " + key.key + " " + what);
  };
  CollectorSettings settings;
  for (const auto& c : cases) {
    test::write_file(path_, config_text({{c.key.key, c.value}}));
    EXPECT_FALSE(read_settings(path_, settings, error_)) << c.key.key << " = " << c.value;
    expect_told(path_ + ":");
    told(c.key, c.what);
  }
  for (const ConfigKey& key : kConfigKeys) {
    std::string text = config_text({});
    text.insert(text.find("\n" + std::string(key.key) + " ") + 1, "#");
    test::write_file(path_, text);
    ConfigValues values;
    EXPECT_EQ(read_config_values(path_, values, error_), key.is_optional) << key.key;
    EXPECT_EQ(values[key.key], key.is_optional ? key.sample : "") << key.key;
    if (!key.is_optional) told(key, "is missing");
  }
  EXPECT_FALSE(read_settings(path_ + ".absent", settings, error_));
  expect_told(".absent: No such file");
}

TEST_F(Objects, AreFilledOnceAndAdoptedWithCountersAndEntriesAndWiderQueues) {
  EXPECT_FALSE(open_objects(settings_, objects_, error_));
  expect_told("there is no such object");
  ASSERT_TRUE(create()) << error_;
  EXPECT_EQ(objects_.created, 9);
  EXPECT_EQ(listed().size(), 9u);
  shm_info segments;
  ASSERT_GE(shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&segments)), 0);
  EXPECT_LT(segments.shm_rss, 1024u) << "pages, of 603 MB";
  EXPECT_EQ(objects_.que_info->magic_code, kMagicReady);
  EXPECT_EQ(objects_.que_info->que_mask, 3u);
  EXPECT_EQ(objects_.que_info->log_flag_set, 0x81);
  EXPECT_EQ(objects_.que_info->tong_log_flag, '0');
  EXPECT_EQ(objects_.que_info->fst_err_rc_set[7], 2);
  EXPECT_EQ(objects_.que_info->fst_err_rc_set[8], 0);
  EXPECT_EQ(objects_.que_info->call_trc_limit, 9'223'372'036'854'775'807u);
  EXPECT_EQ(objects_.ptrc_hash_tbl->free_stack.count, 10'000u);
  EXPECT_EQ(semctl(objects_.ptrc_hash_semid, 0, GETVAL), 1);
  for (const std::string& line : listed()) EXPECT_NE(line.find(" 666 "), line.npos) << line;

  const SharedObjects before = objects_;
  const int msqid = objects_.msgq_ids[2];
  const long wide = queue_records(msqid);
  msqid_ds about = {};
  ASSERT_EQ(msgctl(msqid, IPC_STAT, &about), 0);
  about.msg_qbytes = 7840;
  ASSERT_EQ(msgctl(msqid, IPC_SET, &about), 0);
  EXPECT_NE(queue_notes(objects_).at(0).find("only 10 records"), std::string::npos);
  EXPECT_NE(queue_notes(objects_).at(1).find("sysctl -w kernel.msgmnb="), std::string::npos);
  objects_.que_info->que_fail_cnt[2] = 7;
  objects_.svc_hash_tbl->used = 1;
  --objects_.svc_hash_tbl->free_stack.count;
  settings_.que_cnt = 2;
  settings_.tong_log_flag = 1;
  ASSERT_TRUE(create()) << error_;
  EXPECT_EQ(objects_.created, 0);
  EXPECT_EQ(objects_.que_info_shmid, before.que_info_shmid);
  EXPECT_EQ(objects_.msgq_ids, before.msgq_ids);
  EXPECT_EQ(objects_.que_info->que_fail_cnt[2], 7u);
  EXPECT_EQ(objects_.que_info->que_mask, 1u);
  EXPECT_EQ(objects_.que_info->tong_log_flag, '1');
  EXPECT_EQ(objects_.svc_hash_tbl->free_stack.count, 9'999u);
  EXPECT_EQ(queue_records(msqid), std::min(wide, 4096L)) << "it was not widened";

  // As a creator leaves them that is killed between making and filling; one queue too few.
  ASSERT_EQ(msgctl(objects_.msgq_ids[1], IPC_RMID, nullptr), 0);
  ASSERT_EQ(semctl(objects_.svc_hash_semid, 0, IPC_RMID), 0);
  ASSERT_GE(semget(static_cast<key_t>(settings_.svc_hash_tbl_semkey), 1, IPC_CREAT | 0666), 0);
  objects_.ptrc_hash_tbl->free_stack.count = 17;
  ASSERT_TRUE(create()) << error_;
  EXPECT_EQ(objects_.created, 1);
  EXPECT_EQ(objects_.ptrc_hash_tbl->free_stack.count, 10'000u);
  EXPECT_EQ(objects_.svc_hash_tbl->free_stack.count, 9'999u);
}

TEST_F(Objects, OfSomebodyElseAreRefusedAndLeftAlone) {
  for (const auto& [name, number] :
       {std::pair(kQueInfoShmKey.key, settings_.que_info_shmkey),
        std::pair(kSvcHashTblShmKey.key, settings_.svc_hash_tbl_shmkey),
        std::pair(kPtrcHashTblShmKey.key, settings_.ptrc_hash_tbl_shmkey)}) {
    SCOPED_TRACE(name);
    IpcObject foreign(IpcKind::kSegment, static_cast<key_t>(number), 4096, 0666);
    std::memset(foreign.base(), 'z', 4096);
    for (const bool done : {create(), remove()}) {
      EXPECT_FALSE(done);
      expect_told(name + (" " + std::to_string(number)) + ": a segment of 4096 bytes");
      EXPECT_EQ(listed().size(), 1u) << "something was left behind";
    }
    EXPECT_EQ(static_cast<char*>(foreign.base())[0], 'z');
  }
  const int semid = semget(static_cast<key_t>(settings_.ptrc_hash_tbl_semkey), 3, IPC_CREAT | 0666);
  EXPECT_FALSE(create());
  expect_told("PTRC_HASH_TBL_SEMKEY");
  EXPECT_EQ(listed().size(), 1u) << "something was left behind";
  EXPECT_EQ(semctl(semid, 0, IPC_RMID), 0);
}

// Creation is held up where it fills the last table: all objects are there by then.
TEST_F(Objects, AreReadyLastAndGoneWhenCreationFailsLate) {
  IpcObject held(IpcKind::kSemaphore, static_cast<key_t>(settings_.ptrc_hash_tbl_semkey), 0, 0666);
  ASSERT_EQ(sem_lock(held.id(), 0, 0), 0);
  const auto ready = [this] {
    const int shmid = shmget(static_cast<key_t>(settings_.que_info_shmkey), 0, 0);
    auto* const info = static_cast<TRAN_LOGF_QUE_INFO*>(shmat(shmid, nullptr, SHM_RDONLY));
    const bool is_ready = load(info->magic_code) == kMagicReady;
    shmdt(info);
    return is_ready;
  };
  for (const bool released : {false, true}) {
    auto creating = std::async(std::launch::async, [this] { return create(); });
    EXPECT_TRUE(test::wait_until([] { return listed().size() == 9; }));
    EXPECT_FALSE(ready());
    if (released) sem_unlock(held.id(), 0, 0);
    EXPECT_EQ(creating.get(), released) << error_;
    EXPECT_EQ(listed().size(), released ? 9u : 1u);
    if (!released) expect_told("process " + std::to_string(getpid()) + " was the last to use it");
  }
  EXPECT_TRUE(ready());
}

TEST_F(Objects, GoWithTheRecordsTheyHeldAndOthersStay) {
  ASSERT_TRUE(create()) << error_;
  CollectorSettings other = settings_;
  SharedObjects own;
  ASSERT_TRUE(create_private_objects(other, own, error_)) << error_;
  EXPECT_EQ(listed().size(), 18u);
  TRAN_LOGF_QUE_DATA record = {};
  record.mtype = kRecordMsgType;
  for (const std::size_t queue : {0, 0, 3})
    ASSERT_EQ(msgsnd(own.msgq_ids[queue], &record, kRecordTextSize, IPC_NOWAIT), 0);

  detach_objects(own);
  EXPECT_TRUE(remove_objects(other, removed_, error_)) << error_;
  EXPECT_EQ(removed_.objects, 9);
  EXPECT_EQ(removed_.records, 3);
  ASSERT_TRUE(open_objects(settings_, own, error_)) << error_;
  EXPECT_EQ(own.msgq_ids, objects_.msgq_ids);
  detach_objects(own);
}

}  // namespace
}  // namespace varn
