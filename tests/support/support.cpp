#include "support/support.h"

#include <fcntl.h>
#include <iconv.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <regex>
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

// Successes are not kept.
int failed_checks() {
  return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
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

bool is_long_run() { return std::getenv("VARN_SOAK") != nullptr; }

int rounds(int usual, int times_in_long_run) {
  if (kIsSanitized) usual /= 10;
  return is_long_run() ? usual * times_in_long_run : usual;
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

pid_t fork_when_others_sleep() {
  const auto is_awake = [](const std::filesystem::directory_entry& thread) {
    return thread.path().filename() != std::to_string(gettid()) &&
           read_file(thread.path() / "stat").find(") S ") == std::string::npos;
  };
  const auto all_sleep = [&] {
    return std::ranges::none_of(std::filesystem::directory_iterator("/proc/self/task"), is_awake);
  };
  if (kIsSanitized) wait_until(all_sleep);
  return fork();
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

testing::AssertionResult ChildProcess::wait(Duration within) {
  int status = 0;
  reaped_ = wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, within);
  if (!reaped_) return testing::AssertionFailure() << "child " << pid_ << " did not end in time";
  if (status == 0) return testing::AssertionSuccess();
  if (WIFSIGNALED(status))
    return testing::AssertionFailure() << "child ended by signal " << WTERMSIG(status);
  return testing::AssertionFailure() << "child ended with " << WEXITSTATUS(status);
}

void IpcObject::make(std::size_t size) {
  const int flags = IPC_CREAT | IPC_EXCL | mode_;
  id_ = kind_ == IpcKind::kSegment     ? shmget(key_, size, flags | SHM_NORESERVE)
        : kind_ == IpcKind::kSemaphore ? semget(key_, 1, flags)
                                       : msgget(key_, flags);
  if (id_ < 0) fail("no System V object");
  if (kind_ == IpcKind::kSegment) base_ = shmat(id_, nullptr, 0);
  if (kind_ == IpcKind::kSemaphore) semctl(id_, 0, SETVAL, 1);
}

void IpcObject::remove() {
  if (id_ < 0) return;
  if (kind_ == IpcKind::kSegment) {
    shmdt(base_);
    shmctl(id_, IPC_RMID, nullptr);
  }
  if (kind_ == IpcKind::kSemaphore) semctl(id_, 0, IPC_RMID);
  if (kind_ == IpcKind::kQueue) msgctl(id_, IPC_RMID, nullptr);
  id_ = -1;
}

void IpcObject::allow_group(gid_t gid) const {
  shmid_ds segment;
  semid_ds set;
  msqid_ds queue;
  if (kind_ == IpcKind::kSegment && shmctl(id_, IPC_STAT, &segment) == 0) {
    segment.shm_perm.gid = gid;
    shmctl(id_, IPC_SET, &segment);
  } else if (kind_ == IpcKind::kSemaphore && semctl(id_, 0, IPC_STAT, &set) == 0) {
    set.sem_perm.gid = gid;
    semctl(id_, 0, IPC_SET, &set);
  } else if (msgctl(id_, IPC_STAT, &queue) == 0) {
    queue.msg_perm.gid = gid;
    msgctl(id_, IPC_SET, &queue);
  }
}

std::vector<LogLine> parse_log(std::string_view content) {
  static const std::regex prefix(R"(^\((\d+)\) \d\d-\d\d \d\d:\d\d:\d\d  )");
  std::vector<LogLine> lines;
  std::istringstream text{std::string(content)};
  std::smatch match;
  for (std::string line; std::getline(text, line);) {
    if (std::regex_search(line, match, prefix))
      lines.push_back({std::stoi(match[1]), match.suffix()});
    else if (!line.empty())  // a message that ends with a newline of its own leaves one behind
      ADD_FAILURE() << "not a log line: " << line;
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
  const RecordKind* const kind = record_kind(type_of(record), record.length);
  if (kind == nullptr) throw std::invalid_argument("no such record type");
  for (const Field& field : kind->body)
    if (field.name == name) return text_of(record, field);
  throw std::invalid_argument("no field of this name in the record");
}

char type_of(const Record& record) { return record.view[0]; }

FakeCollector::FakeCollector(CollectorOptions options) : queues_(options.queues) {
  static std::mt19937 random(std::random_device{}());
  const key_t base = std::uniform_int_distribution<key_t>(0x1000, 0x7FFF0000)(random) & ~0xFF;
  for (const ConfigKey& key : kConfigKeys) config_[key.key] = key.sample;
  config_["LOG_HOME"] = "log";
  config_["TONG_LOG_HOME"] = home();
  config_["MAX_QUE_CNT"] = config_["QUE_CNT"] = std::to_string(queues_);
  const auto make = [&](const ConfigKey& name, int queue, IpcKind kind, int key, std::size_t size) {
    objects_.try_emplace({name.key, queue}, kind, base + key, size, options.mode);
    if (queue == 0) config_[name.key] = std::to_string(base + key);
  };
  make(kQueInfoShmKey, 0, IpcKind::kSegment, 0, sizeof(TRAN_LOGF_QUE_INFO));
  make(kSvcHashTblShmKey, 0, IpcKind::kSegment, 1, sizeof(SVC_HASH_TBL));
  make(kPtrcHashTblShmKey, 0, IpcKind::kSegment, 2, sizeof(PTRC_HASH_TBL));
  make(kSvcHashTblSemKey, 0, IpcKind::kSemaphore, 1, 0);
  make(kPtrcHashTblSemKey, 0, IpcKind::kSemaphore, 2, 0);
  for (int n = 0; n < queues_; ++n) make(kTranLogfMsgqKey, n, IpcKind::kQueue, 0x10 + n, 0);

  TRAN_LOGF_QUE_INFO& info = que_info();
  info.que_cnt = queues_;
  info.que_mask = static_cast<std::uint32_t>(queues_) - 1;
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

SVC_HASH_ENT& FakeCollector::add_service(std::string_view svc_id, const ServiceSettings& settings,
                                         int behind) {
  SVC_HASH_TBL& table = svc_tbl();
  char key[sizeof SVC_HASH_ENT::svc_id];
  put_padded(key, sizeof key, {svc_id.data(), static_cast<std::int32_t>(svc_id.size())});
  const std::uint32_t chain = get_hidx(key, sizeof key, kTableChains - 1);
  int last = kNoEntry;
  for (int at = table.heads[chain]; at != kNoEntry; at = table.entries[at].next) last = at;
  for (int left = behind; left >= 0; --left) {
    const int n = svc_hash_pop(&table.free_stack);
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
    last = n;
  }
  SVC_HASH_ENT& entry = table.entries[last];
  std::memcpy(entry.svc_id, key, sizeof key);
  entry.call_trc_depth = settings.call_trc_depth;
  entry.call_trc_limit = settings.call_trc_limit;
  entry.dbio_trc_limit = settings.dbio_trc_limit;
  entry.sql_trc_limit = settings.sql_trc_limit;
  entry.trace_flags = settings.trace_flags;
  return entry;
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
  const int queue = object(kTranLogfMsgqKey, n).id();
  for (long left = get_msgq_num(queue); left > 0; --left) {  // senders may go on meanwhile
    Record record;
    const ssize_t size = msgrcv(queue, &record, kRecordTextSize, 0, IPC_NOWAIT);
    if (size < 0) break;
    EXPECT_EQ(size, static_cast<ssize_t>(kRecordTextSize)) << "a message of another size";
    records.push_back(record);
  }
  return records;
}

std::vector<Record> FakeCollector::read_all() {
  std::vector<Record> all;
  for (int n = 0; n < queues_; ++n)
    for (const Record& record : read_queue(n)) all.push_back(record);
  return all;
}

std::vector<Record> FakeCollector::read_all(char rec_type) {
  std::vector<Record> all = read_all();
  std::erase_if(all, [rec_type](const Record& record) { return type_of(record) != rec_type; });
  return all;
}

}  // namespace varn::test
