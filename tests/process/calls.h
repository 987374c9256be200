// Every exported call with plausible arguments, the traced ones in their shortest form, and what
// calls may return.
#pragma once

#include <algorithm>
#include <array>
#include <iterator>
#include <span>
#include <string_view>

#include "records/calls.h"

namespace varn::test {

inline constexpr char kGidA[] = "20240102030405GIDAAAAAAAAAAAAA01";
inline constexpr char kService[] = "SVC_A";

inline int start(int tid) { return start({.gid = kGidA, .svc_id = kService}, tid); }
inline int end(int tid) { return end({.gid = kGidA, .svc_id = kService}, tid); }
inline int error(int tid) { return error({.gid = kGidA, .svc_id = kService}, tid); }
inline int info(int tid, const char* svc_id = kService, const char* message = "text") {
  return info({.svc_id = svc_id, .message = message}, tid);
}
inline int event(int tid) {
  return event({.gid = kGidA, .svc_id = kService, .code = "9000", .message = "text"}, tid);
}

// ---- The exported calls ----

struct TextArgument {
  std::string_view name;
  int width;            // bytes that are read at most
  bool has_len = true;  // or it ends at its zero byte alone
};

struct ExportedCall {
  std::string_view name;
  std::span<const TextArgument> texts;
  int (*make)(int tid, const Arg* texts);
  bool says_state = false;  // returns 103, 105 or 126 whatever its arguments, when that is so
};

#define VARN_TEST_TEXT(name, width) {#name, width},
inline constexpr TextArgument kServiceTexts[] = {TRAN_FIELD_LIST(VARN_TEST_TEXT)};
inline constexpr TextArgument kPartialTexts[] = {TRAN_PARTIAL_FIELD_LIST(VARN_TEST_TEXT)};
#undef VARN_TEST_TEXT
#define VARN_TEST_HEAD_TEXTS                                                                      \
  {"hdr_cd", 2}, {"hdr_flag", 1}, {"gid", 32}, {"svc_id", 16}, {"pid_str", 8}, {"date_str", 8}, { \
    "time_str", 12                                                                                \
  }
inline constexpr TextArgument kNoticeTexts[] = {
    VARN_TEST_HEAD_TEXTS, {"code", 4}, {"recv_svc_cd", 12}, {"chnl_class", 4}, {"message", 512}};
inline constexpr TextArgument kCallTexts[] = {
    VARN_TEST_HEAD_TEXTS, {"call_at", 350}, {"call_src", 350}, {"func_nm", 70}, {"label", 350}};
#undef VARN_TEST_HEAD_TEXTS
inline constexpr TextArgument kTelegramTexts[] = {
    {"hdr_cd", 2}, {"hdr_flag", 1}, {"gid", 32}, {"svc_id", 16}};
inline constexpr TextArgument kStatementTexts[] = {{"date_str", 8}, {"time_str", 12}};
inline constexpr TextArgument kSqlIdTexts[] = {{"sql_id", 200}};
inline constexpr TextArgument kSqlcaTexts[] = {{"message", 1023, false}};
inline constexpr TextArgument kDbconnTexts[] = {{"user", 10, false}, {"instance", 10, false}};
inline constexpr TextArgument kFieldTexts[] = {{"src", 16}};
inline constexpr std::size_t kMostTexts = std::size(kServiceTexts);

template <typename Named, int (*kSend)(const Named&, int)>
int send_named(int tid, const Arg* texts) {
  Named named;
  std::memcpy(static_cast<void*>(&named), texts, sizeof named);
  return kSend(named, tid);
}
template <int (*kSend)(const CallArgs&, int)>
int send_call(int tid, const Arg* t) {
  return kSend({t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7], t[8], 17, 0, t[9], t[10]}, tid);
}
inline constexpr auto kTelegram = [] {
  std::array<char, 600> telegram = {};
  telegram.fill('A');
  return telegram;
}();
template <auto kSend>
int send_telegram(int tid, const Arg* t) {
  return kSend(tid, t[0].text, t[0].len, t[1].text, t[1].len, t[2].text, t[2].len, t[3].text,
               t[3].len, kTelegram.data(), static_cast<int>(kTelegram.size()), 1, 1);
}
template <auto kSend>
int send_fep(int tid, const Arg*) {
  return kSend(tid, "unused", -1, nullptr, 0);
}
template <auto kHook>
int call_hook(int, const Arg*) {
  kHook(reinterpret_cast<void*>(0x1234), nullptr);
  return 0;
}

// In an order that makes sense: a walk of them all is a process's life.
inline constexpr ExportedCall kExportedCalls[] = {
    {"TRAN_SET_DBCONN_INFO", kDbconnTexts,
     [](int tid, const Arg* t) { return TRAN_SET_DBCONN_INFO(tid, t[0].text, t[1].text); }},
    {"TRAN_INIT", {}, [](int, const Arg*) { return TRAN_INIT(); }},
    {"TRAN_START", kServiceTexts, send_named<ServiceArgs, start>, true},
    {"TRAN_CALLINFO_S", kCallTexts, send_call<call_start>},
    {"TRAN_SQL_ID", kSqlIdTexts,
     [](int tid, const Arg* t) { return TRAN_SQL_ID(tid, t[0].text, t[0].len); }},
    {"TRAN_SET_DBIO_STS", {}, [](int tid, const Arg*) { return TRAN_SET_DBIO_STS(tid, 1); }},
    {"TRAN_SQL_STMT", kStatementTexts,
     [](int tid, const Arg* t) {
       return TRAN_SQL_STMT(tid, TRAN_SQL_ADD, t[0].text, t[0].len, t[1].text, t[1].len, 1, nullptr,
                            nullptr, "SELECT 1 FROM dual");
     }},
    {"TRAN_CHECK_SQL_TIME", {}, [](int tid, const Arg*) { return TRAN_CHECK_SQL_TIME(tid, 7); }},
    {"TRAN_SET_SQLCA_INFO", kSqlcaTexts,
     [](int tid, const Arg* t) { return TRAN_SET_SQLCA_INFO(tid, -900, t[0].text, 17); }},
    {"TRAN_SET_FETCH_INFO",
     {},
     [](int tid, const Arg*) { return TRAN_SET_FETCH_INFO(tid, 3, 9, 1); }},
    {"TRAN_CALLINFO_F", kCallTexts, send_call<call_end>},
    {"TRAN_ADD_PROFILE",
     {},
     [](int, const Arg*) {
       TRAN_ADD_PROFILE(0x1234, "function");
       return 0;
     }},
    {"__cyg_profile_func_enter", {}, call_hook<__cyg_profile_func_enter>},
    {"__cyg_profile_func_exit", {}, call_hook<__cyg_profile_func_exit>},
    {"TRAN_DEL_PROFILE",
     {},
     [](int, const Arg*) {
       TRAN_DEL_PROFILE(0x1234);
       return 0;
     }},
    {"TRAN_INFO", kNoticeTexts, send_named<NoticeArgs, info>, true},
    {"TRAN_INFO_EX", kNoticeTexts, send_named<NoticeArgs, info_ex>, true},
    {"TRAN_EVENT", kNoticeTexts, send_named<NoticeArgs, event>, true},
    {"TRAN_ERRINFO", kNoticeTexts, send_named<NoticeArgs, errinfo>, true},
    {"TRAN_ERROR", kServiceTexts, send_named<ServiceArgs, error>, true},
    {"TRAN_SET_TIME", {}, [](int tid, const Arg*) { return TRAN_SET_TIME(tid); }},
    {"TRAN_END", kServiceTexts, send_named<ServiceArgs, end>, true},
    {"TRAN_STARTX", kTelegramTexts, send_telegram<TRAN_STARTX>},
    {"TRAN_ENDX", kTelegramTexts, send_telegram<TRAN_ENDX>},
    {"TRAN_PT_START", kPartialTexts, send_named<PartialArgs, pt_start>},
    {"TRAN_PT_END", kPartialTexts, send_named<PartialArgs, pt_end>},
    {"TRAN_CLH_START", kServiceTexts, send_named<ServiceArgs, clh_start>},
    {"TRAN_CLH_ERROR", kServiceTexts, send_named<ServiceArgs, clh_error>},
    {"TRAN_CLH_END", kServiceTexts, send_named<ServiceArgs, clh_end>},
    {"TRAN_WEB_START", kPartialTexts, send_named<PartialArgs, web_start>},
    {"TRAN_WEB_END", kPartialTexts, send_named<PartialArgs, web_end>},
    {"TRAN_FEP_START", {}, send_fep<TRAN_FEP_START>},
    {"TRAN_FEP_END", {}, send_fep<TRAN_FEP_END>},
    {"TRAN_GET_HASH_CODE",
     {},
     [](int tid, const Arg*) { return TRAN_GET_HASH_CODE(tid, nullptr, nullptr, 0, kService); }},
    {"get_log_flag_set", {}, [](int, const Arg*) { return int{get_log_flag_set("SEV")}; }},
    {"set_fst_err_rc_set", {}, [](int, const Arg*) { return set_fst_err_rc_set("-5,1"); }},
    {"is_err_rc",
     {},
     [](int, const Arg*) {
       tran_call_rc ended = {0, -5};
       return is_err_rc(&ended);
     }},
    {"set_log_field", kFieldTexts,
     [](int, const Arg* t) {
       char field[17];
       set_log_field(t[0].text, t[0].len, field, 16, 1);
       return 0;
     }},
    {"read_config", {}, [](int, const Arg*) { return read_config(); }},
    {"print_logo",
     {},
     [](int, const Arg*) {
       print_logo();
       return 0;
     }},
    {"check_gvar", {}, [](int, const Arg*) { return check_gvar('1'); }, true},
    {"check_gvar", {}, [](int, const Arg*) { return check_gvar('_'); }, true},
    {"TRAN_SET_SVCTIMEOUT", {}, [](int tid, const Arg*) { return TRAN_SET_SVCTIMEOUT(tid); }},
    {"TRAN_DONE", {}, [](int, const Arg*) { return TRAN_DONE(); }},
};

inline Arg plausible(const TextArgument& text) {
  if (text.name == "gid") return kGidA;
  if (text.name == "svc_id") return kService;
  if (text.name == "code") return "9000";
  if (text.name == "func_nm") return "db_select";
  if (text.name.ends_with("_str")) return {};
  return "text";
}

// Neither this nor what stands on it takes a lock or allocates: a process may be forked while its
// threads are there.
inline int make(const ExportedCall& call, int tid) {
  std::array<Arg, kMostTexts> texts;
  std::transform(call.texts.begin(), call.texts.end(), texts.begin(), plausible);
  return call.make(tid, texts.data());
}

struct NamedResult {
  std::string_view name;
  int result;
};

// The calls that say the agent's state, once each.
inline auto call_everything(int tid) {
  constexpr auto says_state = [](const ExportedCall& call) { return call.says_state; };
  constexpr auto kCount =
      std::count_if(std::begin(kExportedCalls), std::end(kExportedCalls), says_state);
  std::array<NamedResult, kCount> results;
  auto next = results.begin();
  for (const ExportedCall& call : kExportedCalls)
    if (call.says_state) *next++ = {call.name, make(call, tid)};
  return results;
}
inline void expect_everything_returns(int code, int tid = -1) {
  for (const auto& [name, result] : call_everything(tid)) EXPECT_EQ(result, code) << name;
}

inline bool is_sent(int result) { return result >= 0 && result < kMaxQueues; }
inline bool is_documented(int result) {
  constexpr int kCodes[] = {99, 100, 101, 102, 103, 105, 107, 112, 113, 116, 118, 121, 123, 126};
  return is_sent(result) ||
         std::find(std::begin(kCodes), std::end(kCodes), result) != std::end(kCodes);
}

}  // namespace varn::test
