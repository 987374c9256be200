// The calls that are measured, and what some of them are measured against.
#pragma once

#include <sys/msg.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "bench/telegram.h"
#include "layout/record.h"
#include "varn/tran.h"

namespace varn::bench {

inline constexpr std::uint8_t kAllOn = 0xFF;
inline constexpr std::uint8_t kAllOff = 0;

#define NONE nullptr, 0
#define NO_HEAD NONE, NONE, NONE, NONE, NONE, NONE, NONE

inline constexpr char kMessageText[] = "balance 1,204,300 after transfer to 110-204-559102";

// A text of full width for every field, in buffers whose places and lengths are known when
// compiling, as a server's are. Process id, date and time are left to the agent: a caller that
// gives the time has no response time measured.
consteval bool left_to_agent(std::string_view name) {
  return name == "pid_str" || name == "date_str" || name == "time_str";
}
struct Texts {
#define VARN_TEXT(name, width) char name[width + 1];
  TRAN_FIELD_LIST(VARN_TEXT)
#undef VARN_TEXT
};
inline constexpr Texts kTexts = [] {
  Texts texts = {};
#define VARN_FILL(name, width) std::fill_n(texts.name, width, 'A');
  TRAN_FIELD_LIST(VARN_FILL)
#undef VARN_FILL
  std::copy_n("202611220930WEB010000000000001", 30, texts.gid);
  return texts;
}();

#define VARN_ARGUMENT(name, width) \
  , left_to_agent(#name) ? nullptr : kTexts.name, left_to_agent(#name) ? 0 : (width)
#define ALL_TEXTS TRAN_FIELD_LIST(VARN_ARGUMENT)

[[gnu::noipa]] inline int empty_call(int tid TRAN_FIELD_PARAMETERS) {
#define VARN_UNUSED(name, width) static_cast<void>(name), static_cast<void>(name##_len);
  TRAN_FIELD_LIST(VARN_UNUSED)
#undef VARN_UNUSED
  return tid;
}

inline int start_service(int tid = -1) { return TRAN_START(tid ALL_TEXTS); }
inline int end_service(int tid = -1) { return TRAN_END(tid ALL_TEXTS); }

inline int info(int tid = -1) {
  return TRAN_INFO(tid, NO_HEAD, kMessageText, sizeof kMessageText - 1);
}
inline int errinfo(int tid) {
  return TRAN_ERRINFO(tid, NO_HEAD, "0001", 4, NONE, NONE, kMessageText, sizeof kMessageText - 1);
}

inline int call_start(int tid = -1) {
  return TRAN_CALLINFO_S(tid, NO_HEAD, NONE, NONE, 0, 0, "check_limit", 11, NONE);
}
inline int call_end(int tid = -1) {
  return TRAN_CALLINFO_F(tid, NO_HEAD, "limit.c", 7, NONE, 42, 0, "check_limit", 11, NONE);
}
inline int call_pair(int tid = -1) { return call_start(tid) | call_end(tid); }

inline constexpr TRAN_LOGF_QUE_DATA kReadyRecord = [] {
  TRAN_LOGF_QUE_DATA record = {.mtype = kRecordMsgType, .length = kBodyAt, .view = {}};
  std::ranges::fill(record.view, ' ');
  return record;
}();
inline int bare_send(int msgq_id) {
  return msgsnd(msgq_id, &kReadyRecord, kRecordTextSize, IPC_NOWAIT);
}

inline int two_clock_reads() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return gettimeofday(&tv, nullptr);
}

inline void hook_pair() {
  const auto function = reinterpret_cast<void*>(&hook_pair);
  __cyg_profile_func_enter(function, nullptr);
  __cyg_profile_func_exit(function, nullptr);
}

// What a telegram's record cannot do without: its memory, and its bytes in it.
class CopiedRecords {
 public:
  CopiedRecords() { blocks_.reserve(kMost); }
  int add() {
    char* const block = static_cast<char*>(std::malloc(kTelegramRecord));
    std::memcpy(block, source_, kTelegramRecord);
    blocks_.push_back(block);
    return TRAN_RC_OK;
  }
  bool is_full() const { return blocks_.size() == kMost; }
  void free_all() {
    for (char* const block : blocks_) std::free(block);
    blocks_.clear();
  }

 private:
  static constexpr std::size_t kMost = 6400;
  char source_[kTelegramRecord] = {};
  std::vector<char*> blocks_;
};
inline thread_local CopiedRecords copied_records;
inline int allocate_and_copy() { return copied_records.add(); }

}  // namespace varn::bench
