// What the tests of records share: the exported calls with named arguments, and a fixture that runs
// a traced process and reads what it sent.
#pragma once

#include <sys/time.h>

#include <array>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "support/support.h"
#include "varn/tran.h"

namespace varn::test {

struct Arg {
  const char* text = nullptr;
  int len = 0;

  Arg() = default;
  Arg(const char* t, int n = -1) : text(t), len(n) {}
};

#define VARN_TEST_MEMBER(name, width) Arg name = {};
struct ServiceArgs {
  TRAN_FIELD_LIST(VARN_TEST_MEMBER)
};

struct PartialArgs {
  TRAN_PARTIAL_FIELD_LIST(VARN_TEST_MEMBER)
};

struct NoticeArgs {
  Arg hdr_cd = {}, hdr_flag = {}, gid = {}, svc_id = {}, pid_str = {}, date_str = {}, time_str = {};
  Arg code = {}, recv_svc_cd = {}, chnl_class = {}, message = {};
};

inline constexpr int kThread = 4660;  // 0x1234: bucket 52

#define VARN_TEST_PAIR(name, width) , args.name.text, args.name.len
#define VARN_TEST_HEAD                                                                             \
  thread, args.hdr_cd.text, args.hdr_cd.len, args.hdr_flag.text, args.hdr_flag.len, args.gid.text, \
      args.gid.len, args.svc_id.text, args.svc_id.len, args.pid_str.text, args.pid_str.len,        \
      args.date_str.text, args.date_str.len, args.time_str.text, args.time_str.len
#define VARN_TEST_BODY                                                        \
  args.code.text, args.code.len, args.recv_svc_cd.text, args.recv_svc_cd.len, \
      args.chnl_class.text, args.chnl_class.len, args.message.text, args.message.len

inline int start(const ServiceArgs& args, int thread = kThread) {
  return TRAN_START(thread TRAN_FIELD_LIST(VARN_TEST_PAIR));
}
inline int end(const ServiceArgs& args, int thread = kThread) {
  return TRAN_END(thread TRAN_FIELD_LIST(VARN_TEST_PAIR));
}
inline int error(const ServiceArgs& args, int thread = kThread) {
  return TRAN_ERROR(thread TRAN_FIELD_LIST(VARN_TEST_PAIR));
}
inline int clh_start(const ServiceArgs& args, int thread = kThread) {
  return TRAN_CLH_START(thread TRAN_FIELD_LIST(VARN_TEST_PAIR));
}
inline int clh_end(const ServiceArgs& args, int thread = kThread) {
  return TRAN_CLH_END(thread TRAN_FIELD_LIST(VARN_TEST_PAIR));
}
inline int clh_error(const ServiceArgs& args, int thread = kThread) {
  return TRAN_CLH_ERROR(thread TRAN_FIELD_LIST(VARN_TEST_PAIR));
}
inline int pt_start(const PartialArgs& args, int thread = kThread) {
  return TRAN_PT_START(thread TRAN_PARTIAL_FIELD_LIST(VARN_TEST_PAIR));
}
inline int pt_end(const PartialArgs& args, int thread = kThread) {
  return TRAN_PT_END(thread TRAN_PARTIAL_FIELD_LIST(VARN_TEST_PAIR));
}
inline int web_start(const PartialArgs& args, int thread = kThread) {
  return TRAN_WEB_START(thread TRAN_PARTIAL_FIELD_LIST(VARN_TEST_PAIR));
}
inline int web_end(const PartialArgs& args, int thread = kThread) {
  return TRAN_WEB_END(thread TRAN_PARTIAL_FIELD_LIST(VARN_TEST_PAIR));
}
inline int info(const NoticeArgs& args, int thread = kThread) {
  return TRAN_INFO(VARN_TEST_HEAD, args.message.text, args.message.len);
}
inline int info_ex(const NoticeArgs& args, int thread = kThread) {
  return TRAN_INFO_EX(VARN_TEST_HEAD, args.code.text, args.code.len, args.message.text,
                      args.message.len);
}
inline int event(const NoticeArgs& args, int thread = kThread) {
  return TRAN_EVENT(VARN_TEST_HEAD, VARN_TEST_BODY);
}
inline int errinfo(const NoticeArgs& args, int thread = kThread) {
  return TRAN_ERRINFO(VARN_TEST_HEAD, VARN_TEST_BODY);
}

inline std::int64_t clock_us() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec * 1'000'000 + tv.tv_usec;
}

inline std::string padded(std::string text, std::size_t width) {
  text.resize(width, ' ');
  return text;
}

// Text that ends where the readable memory ends. Never unmapped.
inline const char* guarded(const std::string& text) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  char* const pages = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(pages + page, page, PROT_NONE);
  return static_cast<const char*>(
      std::memcpy(pages + page - text.size(), text.data(), text.size()));
}

// The record types in the order sent, "1I2" say.
inline std::string types_of(const std::vector<Record>& records) {
  std::string types;
  for (const Record& record : records) types += type_of(record);
  return types;
}

// A collector with one queue, so that records stay in the order in which they were sent.
class RecordTest : public testing::Test {
 protected:
  // What a traced process sends in `body`, after its start.
  std::vector<Record> trace(const std::function<void()>& body) {
    EXPECT_TRUE(collector.run([&] {
      *pid_ = getpid();
      tzset();  // the environment is the traced process's own by now
      ASSERT_EQ(TRAN_INIT(), 0);
      collector.read_all();
      body();
    }));
    return collector.read_all();
  }

  pid_t pid() const { return *pid_; }  // of the process traced last
  // Its thread's entry; as the collector sees it, also from inside `body`.
  PTRC_HASH_ENT& entry(int thread = kThread) {
    PTRC_HASH_ENT* const found = collector.entry_of(*pid_, static_cast<std::uint64_t>(thread));
    if (found == nullptr) throw std::runtime_error("the thread has no entry");
    return *found;
  }
  // Whether the log has a line with a number between `before` and `after` that is `least` or, when
  // a second passed meanwhile, one more.
  bool logged_seconds(const std::string& before, int least, const std::string& after) {
    return collector.logged(before + std::to_string(least) + after) ||
           collector.logged(before + std::to_string(least + 1) + after);
  }

  FakeCollector collector{{.queues = 1}};

 private:
  Shared<pid_t> pid_;
};

}  // namespace varn::test
