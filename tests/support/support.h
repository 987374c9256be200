// What the tests stand on: the collector's side of the shared objects, child processes that play
// the traced process, and a few small things.
//
// A test goes like this:
//
//   FakeCollector collector;                       // objects, configuration file, directories
//   collector.que_info().svc_filtering = 2;        // tuning
//   EXPECT_TRUE(collector.run([] {                 // a traced process; its checks count here too
//     ASSERT_EQ(TRAN_INIT(), 0);
//     ...
//   }));
//   const auto records = collector.read_all();     // what it sent
//   EXPECT_EQ(text_of(records[0], kGid), "...");   // by field of the layout
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "layout/config_keys.h"
#include "layout/ptrc_hash_tbl.h"
#include "layout/que_info.h"
#include "layout/record.h"
#include "layout/svc_hash_tbl.h"

namespace varn::test {

using namespace std::chrono_literals;
using Duration = std::chrono::steady_clock::duration;

#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kIsAddressSanitized = true;
#else
inline constexpr bool kIsAddressSanitized = false;
#endif
#ifdef __SANITIZE_THREAD__
inline constexpr bool kIsThreadSanitized = true;
#else
inline constexpr bool kIsThreadSanitized = false;
#endif
inline constexpr bool kIsSanitized = kIsAddressSanitized || kIsThreadSanitized;

// What one thread does alone holds no races: the slowest of the sanitizers sees one in so many.
inline constexpr int kOneInAlone = kIsThreadSanitized ? 10 : 1;

// Sanitizers slow everything down; a deadline only bounds how long a failure takes.
inline constexpr Duration kDeadline = 20s;

// Polls until `condition()` holds: whether it did within the time.
bool wait_until(const std::function<bool()>& condition, Duration within = kDeadline);

// How often to do what breaks a promise only once in many times: a tenth of the usual under a
// sanitizer, so many times as often with VARN_SOAK=1, the long run.
bool is_long_run();
int rounds(int usual, int times_in_long_run);
inline const Duration kDeadlineOfRounds = is_long_run() ? Duration(2h) : Duration(2min);

std::string euc_kr(std::string_view utf8);

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

std::string read_file(const std::filesystem::path& path);
void write_file(const std::filesystem::path& path, std::string_view content);

// A value that forked processes see alike. Members that both sides use at once are to be atomic.
template <typename T>
class Shared {
 public:
  Shared()
      : value_(new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                         0)) T{}) {}
  ~Shared() { munmap(value_, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  T* operator->() const { return value_; }
  T& operator*() const { return *value_; }

 private:
  T* const value_;
};

// A fork beside threads that do nothing for long. The sanitizers' allocator knows nothing of forks:
// a lock of it that another thread holds just then is held in the child for ever.
pid_t fork_when_others_sleep();

// A child that runs `body` and exits. Failed checks in it are printed there and fail whoever checks
// the result of wait(). Not to be made in a process that has threads.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<void()>& body);
  ~ChildProcess();  // kills what still runs
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Success: it exited by itself and none of its checks failed. Once a child.
  testing::AssertionResult wait(Duration within = kDeadline);
  void kill(int signal) const { ::kill(pid_, signal); }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
  bool reaped_ = false;
};

// System V objects that vanish with their owner.
enum class IpcKind { kSegment, kSemaphore, kQueue };
class IpcObject {
 public:
  // The size is a segment's.
  IpcObject(IpcKind kind, key_t key, std::size_t size, int mode)
      : kind_(kind), key_(key), mode_(mode) {
    make(size);
  }
  ~IpcObject() { remove(); }
  IpcObject(const IpcObject&) = delete;
  IpcObject& operator=(const IpcObject&) = delete;

  void remove();
  void replace(std::size_t size = 0) {
    remove();
    make(size);
  }
  void allow_group(gid_t gid) const;  // makes the group its group
  int id() const { return id_; }
  key_t key() const { return key_; }
  void* base() const { return base_; }  // of a segment

 private:
  void make(std::size_t size);

  IpcKind kind_;
  key_t key_;
  int mode_;
  int id_ = -1;
  void* base_ = nullptr;
};

struct CollectorOptions {
  int queues = 4;  // in use, and MAX_QUE_CNT
  int mode = 0666;
};

struct ServiceSettings {
  std::uint8_t trace_flags = 0xFF;
  std::uint8_t call_trc_depth = 10;
  std::uint64_t call_trc_limit = 0;
  std::uint64_t dbio_trc_limit = 0;
  std::uint64_t sql_trc_limit = 0;
};

struct LogLine {
  int pid;
  std::string text;
};

// The lines of one log file; a line without the log's prefix fails the test.
std::vector<LogLine> parse_log(std::string_view content);

using Record = TRAN_LOGF_QUE_DATA;

std::string field_of(const Record& record, const Field& field);  // its whole width
std::string text_of(const Record& record, const Field& field);   // without trailing blanks
// Of the record's own kind, by the field's name.
std::string body_field(const Record& record, std::string_view name);
char type_of(const Record& record);

class FakeCollector {
 public:
  explicit FakeCollector(CollectorOptions options = {});

  // Everything the traced processes share. The defaults: four queues, all record kinds on, all
  // error codes of class 1, depth 10, limits 0, no filtering, ready.
  TRAN_LOGF_QUE_INFO& que_info() { return segment<TRAN_LOGF_QUE_INFO>(kQueInfoShmKey); }
  SVC_HASH_TBL& svc_tbl() { return segment<SVC_HASH_TBL>(kSvcHashTblShmKey); }
  PTRC_HASH_TBL& ptrc_tbl() { return segment<PTRC_HASH_TBL>(kPtrcHashTblShmKey); }
  int ptrc_semid() const { return objects_.at({kPtrcHashTblSemKey.key, 0}).id(); }
  // By its key in the configuration; of the queues, `queue` is taken.
  IpcObject& object(const ConfigKey& key, int queue = 0) { return objects_.at({key.key, queue}); }
  void remove_object(const ConfigKey& key, int queue = 0) { object(key, queue).remove(); }
  void replace_segment(const ConfigKey& key, std::size_t size) { object(key).replace(size); }
  void allow_group(gid_t gid) const {
    for (const auto& [name, object] : objects_) object.allow_group(gid);
  }

  // The entry of a thread of a process; null when there is none in use.
  PTRC_HASH_ENT* entry_of(std::int32_t pid, std::uint64_t tid);
  std::vector<PTRC_HASH_ENT*> entries_of(std::int32_t pid);  // in use, newest first

  // Lists a service, behind so many others in its chain.
  SVC_HASH_ENT& add_service(std::string_view svc_id, const ServiceSettings& settings = {},
                            int behind = 0);

  // The configuration file, rewritten at once.
  void set_key(const ConfigKey& key, std::string value);
  std::string key_value(const ConfigKey& key) const { return config_.at(key.key); }
  void remove_key(const ConfigKey& key);

  // The traced process's environment; set in children before their body.
  std::map<std::string, std::string> environment;

  testing::AssertionResult run(const std::function<void()>& body, Duration within = kDeadline);
  std::unique_ptr<ChildProcess> start(const std::function<void()>& body);

  std::filesystem::path home() const { return dir_.path(); }
  std::filesystem::path log_dir() const { return dir_ / "log/proc/libvarn"; }
  std::vector<LogLine> log_lines() const;  // of all processes; empty without a log
  bool logged(std::string_view part) const { return count_logged(part) > 0; }
  int count_logged(std::string_view part) const;

  std::vector<Record> read_queue(int n);  // and empties it
  std::vector<Record> read_all();         // queue by queue
  std::vector<Record> read_all(char rec_type);

 private:
  template <typename T>
  T& segment(const ConfigKey& key) {
    return *static_cast<T*>(object(key).base());
  }
  void write_config() const;

  TempDir dir_;
  int queues_;
  std::map<std::pair<std::string_view, int>, IpcObject> objects_;
  std::map<std::string, std::string> config_;  // value by key; absent: no line
};

}  // namespace varn::test
