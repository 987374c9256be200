#include "support/support.h"

#include <fcntl.h>
#include <iconv.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "hash/get_ptrc_hash.h"
#include "hash/get_svc_hash.h"
#include "hash/hash.h"
#include "hash/svc_hash_stk.h"
#include "util/msgq.h"
#include "util/text.h"

namespace varn::test {
namespace fs = std::filesystem;
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

int failed_checks() {
  const testing::TestInfo* const info = testing::UnitTest::GetInstance()->current_test_info();
  if (info == nullptr) return 0;
  const testing::TestResult& result = *info->result();
  int failed = 0;
  for (int i = 0; i < result.total_part_count(); ++i)
    failed += result.GetTestPartResult(i).failed() ? 1 : 0;
  return failed;
}

}  // namespace

bool wait_until(const std::function<bool()>& condition, Duration within) {
  const auto deadline = std::chrono::steady_clock::now() + within;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    usleep(500);
  }
  return true;
}

std::string euc_kr(std::string_view utf8) {
  const iconv_t converter = iconv_open("EUC-KR", "UTF-8");
  if (converter == reinterpret_cast<iconv_t>(-1)) fail("iconv_open");
  std::string out(utf8.size(), '\0');
  char* in_at = const_cast<char*>(utf8.data());
  char* out_at = out.data();
  std::size_t in_left = utf8.size();
  std::size_t out_left = out.size();
  const std::size_t rc = iconv(converter, &in_at, &in_left, &out_at, &out_left);
  iconv_close(converter);
  if (rc == static_cast<std::size_t>(-1)) fail("iconv");
  out.resize(out.size() - out_left);
  return out;
}

TempDir::TempDir() {
  std::string name = (fs::temp_directory_path() / "varn-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) fail("mkdtemp");
  path_ = name;
  fs::permissions(path_, fs::perms::all);  // some children run as another user
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string read_file(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream content;
  content << file.rdbuf();
  return content.str();
}

void write_file(const fs::path& path, std::string_view content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  if (!file.flush()) fail(path.c_str());
}

ChildProcess::ChildProcess(const std::function<void()>& body) {
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ < 0) fail("fork");
  if (pid_ > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed leaves no children
  const int failed_before = failed_checks();
  try {
    body();
  } catch (const std::exception& e) {
    ADD_FAILURE() << "in the child: " << e.what();
  }
  std::exit(failed_checks() > failed_before ? 1 : 0);
}

ChildProcess::~ChildProcess() {
  if (reaped_) return;
  kill(SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void ChildProcess::kill(int signal) const { ::kill(pid_, signal); }

bool ChildProcess::ended(Duration within) {
  if (!reaped_)
    reaped_ = wait_until([this] { return waitpid(pid_, &status_, WNOHANG) == pid_; }, within);
  return reaped_;
}

testing::AssertionResult ChildProcess::wait(Duration within) {
  if (!ended(within)) {
    kill(SIGKILL);
    return testing::AssertionFailure() << "child " << pid_ << " did not end in time";
  }
  if (WIFSIGNALED(status_))
    return testing::AssertionFailure() << "child died of signal " << WTERMSIG(status_);
  if (WEXITSTATUS(status_) != 0)
    return testing::AssertionFailure() << "child exited with " << WEXITSTATUS(status_);
  return testing::AssertionSuccess();
}

testing::AssertionResult ChildProcess::killed_by(int signal, Duration within) {
  if (ended(within) && WIFSIGNALED(status_) && WTERMSIG(status_) == signal)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "child not killed by signal " << signal;
}

IpcObject::IpcObject(IpcKind kind, key_t key, std::size_t size, int mode) : kind_(kind) {
  const int flags = IPC_CREAT | IPC_EXCL | mode;
  switch (kind) {
    case IpcKind::kSegment:
      id_ = shmget(key, size, flags | SHM_NORESERVE);
      if (id_ < 0) fail("shmget");
      base_ = shmat(id_, nullptr, 0);
      break;
    case IpcKind::kSemaphore:
      id_ = semget(key, 1, flags);
      if (id_ < 0) fail("semget");
      semctl(id_, 0, SETVAL, 1);
      break;
    case IpcKind::kQueue:
      id_ = msgget(key, flags);
      if (id_ < 0) fail("msgget");
      break;
  }
}

void IpcObject::remove() {
  if (id_ < 0) return;
  switch (kind_) {
    case IpcKind::kSegment:
      shmdt(base_);
      shmctl(id_, IPC_RMID, nullptr);
      break;
    case IpcKind::kSemaphore:
      semctl(id_, 0, IPC_RMID);
      break;
    case IpcKind::kQueue:
      msgctl(id_, IPC_RMID, nullptr);
      break;
  }
  id_ = -1;
}

void IpcObject::allow_group(gid_t gid) const {
  shmid_ds segment;
  semid_ds set;
  msqid_ds queue;
  switch (kind_) {
    case IpcKind::kSegment:
      shmctl(id_, IPC_STAT, &segment);
      segment.shm_perm.gid = gid;
      shmctl(id_, IPC_SET, &segment);
      break;
    case IpcKind::kSemaphore:
      semctl(id_, 0, IPC_STAT, &set);
      set.sem_perm.gid = gid;
      semctl(id_, 0, IPC_SET, &set);
      break;
    case IpcKind::kQueue:
      msgctl(id_, IPC_STAT, &queue);
      queue.msg_perm.gid = gid;
      msgctl(id_, IPC_SET, &queue);
      break;
  }
}

std::vector<LogLine> parse_log(std::string_view content) {
  std::vector<LogLine> lines;
  while (!content.empty()) {
    const std::size_t end = content.find('\n');
    const std::string line(content.substr(0, end));
    content.remove_prefix(end == content.npos ? content.size() : end + 1);
    int pid = 0;
    int prefix = 0;
    int month, day, hour, minute, second;
    const bool whole = std::sscanf(line.c_str(), "(%d) %2d-%2d %2d:%2d:%2d%n", &pid, &month, &day,
                                   &hour, &minute, &second, &prefix) == 6 &&
                       line.compare(static_cast<std::size_t>(prefix), 2, "  ") == 0;
    // A message that ends with a newline of its own leaves an empty line behind.
    if (!whole && !line.empty()) ADD_FAILURE() << "not a log line: " << line;
    if (!whole) continue;
    const auto at = static_cast<std::size_t>(prefix);
    lines.push_back({pid, line.substr(at - 14, 14), line.substr(at + 2)});
  }
  return lines;
}

std::string field_of(const Record& record, const Field& field) {
  return {record.view + field.at, field.width};
}

std::string text_of(const Record& record, const Field& field) {
  const std::string text = field_of(record, field);
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

std::string body_field(const Record& record, std::string_view name) {
  const RecordKind* const kind = record_kind(type_of(record));
  if (kind == nullptr) throw std::invalid_argument("no such record type");
  for (const Field& field : kind->body)
    if (field.name == name) return text_of(record, field);
  throw std::invalid_argument("no field of this name in the record");
}

char type_of(const Record& record) { return record.view[0]; }

FakeCollector::FakeCollector(CollectorOptions options) : mode_(options.mode) {
  static std::mt19937 random(std::random_device{}());
  key_base_ = std::uniform_int_distribution<key_t>(0x1000, 0x7FFF0000)(random) & ~0xFF;
  const auto make = [&](IpcKind kind, int key, std::size_t size = 0) {
    return std::make_unique<IpcObject>(kind, key_base_ + key, size, mode_);
  };
  que_info_ = make(IpcKind::kSegment, 0, sizeof(TRAN_LOGF_QUE_INFO));
  svc_tbl_ = make(IpcKind::kSegment, 1, sizeof(SVC_HASH_TBL));
  ptrc_tbl_ = make(IpcKind::kSegment, 2, sizeof(PTRC_HASH_TBL));
  svc_sem_ = make(IpcKind::kSemaphore, 1);
  ptrc_sem_ = make(IpcKind::kSemaphore, 2);
  for (int n = 0; n < options.queues; ++n) queues_.push_back(make(IpcKind::kQueue, 0x10 + n));

  TRAN_LOGF_QUE_INFO& info = que_info();
  info.que_cnt = options.queues;
  info.que_mask = static_cast<std::uint32_t>(options.queues) - 1;
  info.log_flag_set = 0xFF;
  std::fill(std::begin(info.fst_err_rc_set), std::end(info.fst_err_rc_set), std::int8_t{1});
  info.call_trc_depth = 10;
  info.tong_log_flag = '0';
  info.magic_code = kMagicReady;
  init_svc_hash_tbl(svc_tbl());
  init_ptrc_hash_tbl(ptrc_tbl());

  fs::create_directories(log_dir());
  fs::permissions(log_dir(), fs::perms::all);
  environment = {{"TRAN_HOME", home()},
                 {"TRAN_AGT_HOME", home()},
                 {"TRAN_AGT_CFG_FILE", home() / "agent.cfg"},
                 {"VARN_CONSOLE", "off"},
                 {"LANG", "C"}};
  for (const ConfigKey& key : kConfigKeys) config_[key.key] = key.sample;
  config_["LOG_HOME"] = "log";
  config_["TONG_LOG_HOME"] = home();
  config_["MAX_QUE_CNT"] = config_["QUE_CNT"] = std::to_string(options.queues);
  const auto set_ipc_key = [&](const ConfigKey& key, int n) {
    config_[key.key] = std::to_string(key_base_ + n);
  };
  set_ipc_key(kQueInfoShmKey, 0);
  set_ipc_key(kSvcHashTblShmKey, 1);
  set_ipc_key(kPtrcHashTblShmKey, 2);
  set_ipc_key(kSvcHashTblSemKey, 1);
  set_ipc_key(kPtrcHashTblSemKey, 2);
  set_ipc_key(kTranLogfMsgqKey, 0x10);
  write_config();
}

PTRC_HASH_ENT* FakeCollector::entry_of(std::int32_t pid, std::uint64_t tid) {
  for (PTRC_HASH_ENT* entry : entries_of(pid))
    if (entry->ent_tid == tid) return entry;
  return nullptr;
}

std::vector<PTRC_HASH_ENT*> FakeCollector::entries_of(std::int32_t pid) {
  std::vector<PTRC_HASH_ENT*> found;
  TableStack& used = ptrc_tbl().used_stack;
  for (std::uint32_t n = std::min(used.count, TableStack::capacity); n-- > 0;) {
    PTRC_HASH_ENT& entry = ptrc_tbl().entries[used.numbers[n] % kTableEntries];
    if (entry.ent_pid == pid && entry.ent_status == kEntInUse) found.push_back(&entry);
  }
  return found;
}

int FakeCollector::take_svc_entry(std::uint32_t chain) {
  SVC_HASH_TBL& table = svc_tbl();
  const int n = svc_hash_pop(&table.free_stack);
  if (n < 0) throw std::runtime_error("service table full");
  int last = kNoEntry;
  for (int at = table.heads[chain]; at != kNoEntry; at = table.entries[at].next) last = at;
  SVC_HASH_ENT& entry = table.entries[n];
  entry = {};
  entry.index = n;
  entry.bucket = chain;
  entry.prev = last;
  entry.next = kNoEntry;
  std::memset(entry.svc_id, '~', sizeof entry.svc_id);
  (last == kNoEntry ? table.heads[chain] : table.entries[last].next) = n;
  svc_hash_push(&table.used_stack, static_cast<std::uint32_t>(n));
  ++table.used;
  return n;
}

SVC_HASH_ENT& FakeCollector::add_service(std::string_view svc_id, const ServiceSettings& settings,
                                         int behind) {
  char key[sizeof SVC_HASH_ENT::svc_id];
  put_padded(key, sizeof key, {svc_id.data(), static_cast<std::int32_t>(svc_id.size())});
  const std::uint32_t chain = get_hidx(key, sizeof key, kTableChains - 1);
  for (int i = 0; i < behind; ++i) take_svc_entry(chain);
  SVC_HASH_ENT& entry = svc_tbl().entries[take_svc_entry(chain)];
  std::memcpy(entry.svc_id, key, sizeof key);
  entry.call_trc_depth = settings.call_trc_depth;
  entry.call_trc_limit = settings.call_trc_limit;
  entry.dbio_trc_limit = settings.dbio_trc_limit;
  entry.sql_trc_limit = settings.sql_trc_limit;
  entry.trace_flags = settings.trace_flags;
  return entry;
}

std::unique_ptr<IpcObject>& FakeCollector::object(const ConfigKey& key, int queue) {
  const std::string_view name = key.key;
  if (name == kQueInfoShmKey.key) return que_info_;
  if (name == kSvcHashTblShmKey.key) return svc_tbl_;
  if (name == kPtrcHashTblShmKey.key) return ptrc_tbl_;
  if (name == kSvcHashTblSemKey.key) return svc_sem_;
  if (name == kPtrcHashTblSemKey.key) return ptrc_sem_;
  if (name == kTranLogfMsgqKey.key) return queues_.at(static_cast<std::size_t>(queue));
  throw std::invalid_argument("not the key of an object");
}

void FakeCollector::remove_object(const ConfigKey& key, int queue) { object(key, queue)->remove(); }

void FakeCollector::replace_queue(int queue) {
  std::unique_ptr<IpcObject>& place = queues_.at(static_cast<std::size_t>(queue));
  place->remove();
  place = std::make_unique<IpcObject>(IpcKind::kQueue, key_base_ + 0x10 + queue, 0, mode_);
}

void FakeCollector::replace_segment(const ConfigKey& key, std::size_t size) {
  std::unique_ptr<IpcObject>& place = object(key, 0);
  place->remove();
  place =
      std::make_unique<IpcObject>(IpcKind::kSegment, std::stoi(config_.at(key.key)), size, mode_);
}

void FakeCollector::allow_group(gid_t gid) {
  for (IpcObject* object :
       {que_info_.get(), svc_tbl_.get(), ptrc_tbl_.get(), svc_sem_.get(), ptrc_sem_.get()})
    object->allow_group(gid);
  for (const auto& queue : queues_) queue->allow_group(gid);
}

void FakeCollector::set_key(const ConfigKey& key, std::string value) {
  config_[key.key] = std::move(value);
  write_config();
}

void FakeCollector::remove_key(const ConfigKey& key) {
  config_.erase(key.key);
  write_config();
}

void FakeCollector::write_config() const {
  std::map<std::string, std::string> sections;
  for (const ConfigKey& key : kConfigKeys) {
    std::string& section = sections[key.section];
    const auto value = config_.find(key.key);
    if (value != config_.end()) section += value->first + " = " + value->second + "\n";
  }
  std::string text;
  for (const auto& [name, lines] : sections) text += "[" + name + "]\n" + lines + "\n";
  write_file(home() / "agent.cfg", text);
}

testing::AssertionResult FakeCollector::run(const std::function<void()>& body, Duration within) {
  return start(body)->wait(within);
}

std::unique_ptr<ChildProcess> FakeCollector::start(const std::function<void()>& body) {
  return std::make_unique<ChildProcess>([&] {
    for (const char* name : {"TRAN_HOME", "TRAN_AGT_HOME", "TRAN_AGT_CFG_FILE", "VARN_CONSOLE",
                             "VARN_THREAD_ID", "LANG", "LD_PRELOAD"})
      unsetenv(name);
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    body();
  });
}

std::vector<LogLine> FakeCollector::log_lines() const {
  std::vector<fs::path> files;
  for (const auto& file : fs::directory_iterator(log_dir())) files.push_back(file.path());
  std::sort(files.begin(), files.end());
  std::vector<LogLine> lines;
  for (const fs::path& file : files)
    for (LogLine& line : parse_log(read_file(file))) lines.push_back(std::move(line));
  return lines;
}

int FakeCollector::count_logged(std::string_view part) const {
  int count = 0;
  for (const LogLine& line : log_lines()) count += line.text.find(part) != line.text.npos ? 1 : 0;
  return count;
}

std::vector<Record> FakeCollector::read_queue(int n) {
  std::vector<Record> records;
  for (long left = get_msgq_num(queue_id(n)); left > 0; --left) {  // senders may go on meanwhile
    Record record;
    const ssize_t size = msgrcv(queue_id(n), &record, kRecordTextSize, 0, IPC_NOWAIT);
    if (size < 0) break;
    EXPECT_EQ(size, static_cast<ssize_t>(kRecordTextSize)) << "a message of another size";
    records.push_back(record);
  }
  return records;
}

std::vector<Record> FakeCollector::read_all() {
  std::vector<Record> all;
  for (int n = 0; n < static_cast<int>(queues_.size()); ++n)
    for (const Record& record : read_queue(n)) all.push_back(record);
  return all;
}

std::vector<Record> FakeCollector::read_all(char rec_type) {
  std::vector<Record> all = read_all();
  std::erase_if(all, [rec_type](const Record& record) { return type_of(record) != rec_type; });
  return all;
}

}  // namespace varn::test
